#pragma once
// The functions of the suites the module publishes for other plug-ins. Each answers from its
// cache's in-memory state, "UIN?" while that cache does not exist, and never throws.
#include "sdk/fontrix_suites.h"

namespace fontrix {

extern "C" {
QVErr FontrixGetFontsWithLabel(const int32_t* labelIndex, FontrixFontList* out);
QVErr FontrixGetSimilarFontNames(const char* uniqueName, FontrixFontList* out);
QVErr FontrixGetRecognizedFonts(QVRasterHandle image, FontrixFontList* out);
}

/// "QV Fontrix Progress Suite": how far each service's background work has come.
const FontrixProgressSuite& ProgressSuite();
/// "QV Fontrix Table Suite": the shipped similarity table's faces, and installed fonts like one.
const FontrixTableSuite& TableSuite();
/// "QV Fontrix Text Suite": where recognition finds lines of text in a picture.
const FontrixTextSuite& TextSuite();
/// "QV Fontrix Known Fonts Suite": open faces known whether installed or not, and well-known
/// families that are not open.
const FontrixKnownFontsSuite& KnownFontsSuite();

}  // namespace fontrix
