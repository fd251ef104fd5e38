#include "classification/labels.h"

namespace fontrix {

namespace {
const char* const kLabels[kLabelCount] = {
    "fs_blackletter",
    "fs_decorative",
    "fs_handmade",
    "fs_monospace",
    "fs_sans_serif",
    "fs_script",
    "fs_serif",
    "fs_slab_serif",
    "r_angular",
    "r_artistic",
    "r_attention-grabbing",
    "r_attractive",
    "r_bad",
    "r_boring",
    "r_calm",
    "r_charming",
    "r_clumsy",
    "r_complex",
    "r_delicate",
    "r_disorderly",
    "r_dramatic",
    "r_formal",
    "r_fresh",
    "r_friendly",
    "r_gentle",
    "r_graceful",
    "r_happy",
    "r_legible",
    "r_modern",
    "r_playful",
    "r_pretentious",
    "r_sharp",
    "r_sloppy",
    "r_soft",
    "r_strong",
    "r_technical",
    "r_thin",
    "r_warm",
    "r_wide",
};
}  // namespace

const ClassBit kClassBits[kStyleClassCount] = {{0, 1}, {1, 2}, {2, 4}, {3, 8}, {4, 16}, {5, 32}, {6, 64}, {7, 128}};

const char* LabelName(int n) { return kLabels[n]; }

}  // namespace fontrix
