// The font list and the font suites over it: names, files, qualification answers, and the
// font engine's procedure table.
#include <map>
#include <tuple>

#include "host/engine.h"
#include "host/host_impl.h"

namespace fontrix::host {

namespace {

bool SameFace(const HostFont& a, const HostFont& b) {
  return std::tie(a.unique_name, a.family, a.style, a.file, a.face_index, a.bitmap_only, a.symbol) ==
         std::tie(b.unique_name, b.family, b.style, b.file, b.face_index, b.bitmap_only, b.symbol);
}

}  // namespace

void Host::Impl::RebuildFonts() {
  std::vector<HostFont> listed = options.fonts->List();

  std::unique_lock lock(fonts_mu);
  std::multimap<std::tuple<std::string, int>, FontRecord*> previous;
  for (FontRecord* r : font_list) previous.emplace(std::make_tuple(r->font.file, r->font.face_index), r);

  std::vector<FontRecord*> list;
  std::unordered_map<std::string, FontRecord*> by_name;
  list.reserve(listed.size());
  for (const HostFont& font : listed) {
    FontRecord* record = nullptr;
    auto [begin, end] = previous.equal_range(std::make_tuple(font.file, font.face_index));
    for (auto it = begin; it != end; ++it) {
      if (SameFace(it->second->font, font)) {
        record = it->second;
        previous.erase(it);  // a face listed twice gets two handles
        break;
      }
    }
    if (!record) {
      all_fonts.push_back(std::make_unique<FontRecord>(FontRecord{font, false}));
      record = all_fonts.back().get();
      known_fonts.insert(record);
    }
    record->duplicate = !by_name.emplace(font.unique_name, record).second;
    list.push_back(record);
  }
  font_list = std::move(list);
  font_by_name = std::move(by_name);
  fonts = std::move(listed);
  ++generation;
}

const HostFont* Host::Impl::FontOf(QVFontHandle handle) const {
  AwaitFonts();
  std::shared_lock lock(fonts_mu);
  auto* record = reinterpret_cast<const FontRecord*>(handle);
  return known_fonts.count(record) ? &record->font : nullptr;
}

namespace {

// Runs `body` on the record behind a font handle, under the font list's shared lock.
template <typename Body>
QVErr WithFont(QVFontHandle font, Body&& body) {
  return Guarded([&](Host::Impl& h) {
    h.AwaitFonts();
    std::shared_lock lock(h.fonts_mu);
    auto* record = reinterpret_cast<const FontRecord*>(font);
    if (!h.known_fonts.count(record)) return kQVBadParameterErr;
    return body(*record);
  });
}

QVErr CountFonts(int32_t* count) {
  return Guarded([&](Host::Impl& h) {
    if (!count) return kQVBadParameterErr;
    h.AwaitFonts();
    std::shared_lock lock(h.fonts_mu);
    *count = int32_t(h.font_list.size());
    return kQVNoErr;
  });
}

QVErr IndexFontList(int32_t index, QVFontHandle* font) {
  return Guarded([&](Host::Impl& h) {
    h.AwaitFonts();
    std::shared_lock lock(h.fonts_mu);
    if (!font || index < 0 || size_t(index) >= h.font_list.size()) return kQVBadParameterErr;
    *font = reinterpret_cast<QVFontHandle>(h.font_list[size_t(index)]);
    return kQVNoErr;
  });
}

// The strings live in records that outlive every handle, so they stay valid after the call.
QVErr GetFontNames(QVFontHandle font, const char** unique_name, const char** family, const char** style) {
  return WithFont(font, [&](const FontRecord& r) {
    if (unique_name) *unique_name = r.font.unique_name.c_str();
    if (family) *family = r.font.family.c_str();
    if (style) *style = r.font.style.c_str();
    return kQVNoErr;
  });
}

QVErr GetFontFile(QVFontHandle font, const char** path, int32_t* face_index) {
  return WithFont(font, [&](const FontRecord& r) {
    if (path) *path = r.font.file.c_str();
    if (face_index) *face_index = r.font.face_index;
    return kQVNoErr;
  });
}

QVErr FindFontByName(const char* unique_name, QVFontHandle* font) {
  return Guarded([&](Host::Impl& h) {
    if (!unique_name || !font) return kQVBadParameterErr;
    h.AwaitFonts();
    std::shared_lock lock(h.fonts_mu);
    auto it = h.font_by_name.find(unique_name);
    if (it == h.font_by_name.end()) return kQVNotFoundErr;
    *font = reinterpret_cast<QVFontHandle>(it->second);
    return kQVNoErr;
  });
}

template <typename Answer>
QVErr Ask(QVFontHandle font, QVBool* answer, Answer&& read) {
  if (!answer) return kQVBadParameterErr;
  return WithFont(font, [&](const FontRecord& r) {
    *answer = read(r) ? 1 : 0;
    return kQVNoErr;
  });
}

QVErr IsBitmapOnly(QVFontHandle font, QVBool* answer) {
  return Ask(font, answer, [](const FontRecord& r) { return r.font.bitmap_only; });
}

QVErr IsSymbolFont(QVFontHandle font, QVBool* answer) {
  return Ask(font, answer, [](const FontRecord& r) { return r.font.symbol; });
}

QVErr IsDuplicateName(QVFontHandle font, QVBool* answer) {
  return Ask(font, answer, [](const FontRecord& r) { return r.duplicate; });
}

QVErr GetFontKind(QVFontHandle font, int32_t* kind) {
  if (!kind) return kQVBadParameterErr;
  return WithFont(font, [&](const FontRecord& r) {
    *kind = r.font.bitmap_only ? kQVFontKindBitmapStrike : kQVFontKindOutline;
    return kQVNoErr;
  });
}

// The engine's procedures are found by name (EngineProcedure); its handle only has to be
// recognisable.
struct Engine {
  int unused;
} engine;

QVErr GetEngineInterface(void** out) {
  return Guarded([&](Host::Impl&) {
    if (!out) return kQVBadParameterErr;
    *out = &engine;
    return kQVNoErr;
  });
}

QVErr GetEngineProcedure(void* handle, const char* name, void** procedure) {
  return Guarded([&](Host::Impl&) {
    if (handle != &engine || !name || !procedure) return kQVBadParameterErr;
    *procedure = EngineProcedure(name);
    return *procedure ? kQVNoErr : kQVNotFoundErr;
  });
}

}  // namespace

const QVFontSuite kFontSuiteTable = {CountFonts, IndexFontList, GetFontNames, GetFontFile, FindFontByName};
const QVFontGlueSuite kFontGlueSuiteTable = {IsBitmapOnly, IsSymbolFont,       IsDuplicateName,
                                             GetFontKind,  GetEngineInterface, GetEngineProcedure};

}  // namespace fontrix::host
