// Fuzzes the preference file engine: the input is planted as a preferences file, loaded, read as
// every kind of value, and one setting is changed.
//
// Checked for every input: the file loads exactly when it is empty or well-formed (otherwise the
// load throws the prescribed std::invalid_argument); a set that reports success leaves a file
// that loads again and reads back the new value and every other setting unchanged; a set that
// fails leaves the file as it was. Settings are compared only where the text form promises a
// faithful copy: a value holding a carriage return reads back with a line feed.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "FuzzSandbox.h"
#include "xplat/ExpatDOMBuilder.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/MapPref.h"
#include "xplat/PrefsWriter.h"

namespace {

using fuzzing::Check;
using Builder = esd::ExpatDOMBuilder<esd::XMLDocumentNode>;

const char kRootName[] = "VantuUpdater";
const char kFuzzKey[] = "FuzzSetting";
const char kFuzzValue[] = "caf\xC3\xA9 & <more>\tend";

// The names of the elements below the settings element of a well-formed file, in file order.
std::vector<std::string> SettingNames(const std::string& bytes) {
  std::vector<std::string> names;
  Builder builder;
  if (!fuzzing::ParseBytes(builder, bytes)) return names;
  for (const esd::XMLDocumentNode* top : builder.GetDocumentNode()->GetChildNodes()) {
    if (top->GetElementName() != kRootName) continue;
    for (const esd::XMLDocumentNode* child : top->GetChildNodes())
      names.push_back(child->GetElementName());
  }
  return names;
}

// The text of every plain setting (an element without children), as the engine reads it.
std::map<std::string, std::string> PlainSettings(esd::PrefsWriter& prefs,
                                                 const std::vector<std::string>& names) {
  std::map<std::string, std::string> settings;
  for (const std::string& name : names) {
    esd::XMLDocumentNode* node = nullptr;
    if (!prefs.GetPref(name, node) || !node->GetChildNodes().empty()) continue;
    std::string text;
    Check(prefs.GetPref(name, text, std::string()), "a text setting can always be read");
    if (text.find('\r') == std::string::npos) settings[name] = text;
  }
  return settings;
}

// Reads every setting as each kind of value, crashing on none. As a map of text or of flags the
// read succeeds exactly when every entry has its "MapPrefKey" (and, for flags, converts), each
// key taking its last entry's value; a failed read leaves the map empty.
void ReadAsEveryType(esd::PrefsWriter& prefs, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    bool flag = false, keyed = true, converts = true;
    int number = 0;
    unsigned long count = 0;
    prefs.GetPref(name, flag, true);
    prefs.GetPref(name, number, 7);
    prefs.GetPref(name, count, 7ul);
    esd::XMLDocumentNode* node = nullptr;
    Check(prefs.GetPref(name, node), "a setting is found");
    std::map<std::string, std::string> want, text{{"stale", ""}};
    std::map<std::string, bool> flags{{"stale", true}};
    for (const esd::XMLDocumentNode* entry : node->GetChildNodes()) {
      std::string key;
      keyed = entry->GetAttrValue("MapPrefKey", key) && keyed;
      converts = esd::ChangeType(entry->GetData(), flag) && converts;
      want[key] = entry->GetData();
    }
    esd::MapPref<std::string, std::string> asText(name);
    esd::MapPref<std::string, bool> asFlags(name);
    asText.SetPrefsFile(&prefs);
    asFlags.SetPrefsFile(&prefs);
    Check(asText.Get(text) == keyed && text == (keyed ? want : decltype(want)()) &&
              asFlags.Get(flags) == (keyed && converts) &&
              flags.size() == (keyed && converts ? want.size() : 0),
          "a map reads its entries, or fails and is empty");
  }
}

std::unique_ptr<esd::PrefsWriter> Load(const std::string& path) {
  try {
    return std::make_unique<esd::PrefsWriter>(path, kRootName);
  } catch (const std::invalid_argument& error) {
    Check(std::string(error.what()) == "Unable to parse settings file", "the prescribed message");
    return nullptr;
  }
}

// On a fresh file, a setting and a map entry named by the input's last line ("key=value") are
// either refused, leaving nothing in memory or on disk, or read back by the next writer.
void CheckFreshSets(const std::string& input) {
  static const std::string path = fuzzing::FuzzSandbox::Get().Home() + "/Fresh.dat";
  const std::string line = input.substr(input.rfind('\n') + 1);
  const std::size_t equals = line.find('=');
  const std::string key = equals == std::string::npos ? kFuzzKey : line.substr(0, equals);
  const std::string value = equals == std::string::npos ? line : line.substr(equals + 1);
  for (const bool asMap : {false, true}) {
    FileSystemUtils::DeleteLocalFile(path);
    esd::PrefsWriter writer(path, kRootName);
    esd::MapPref<std::string, std::string> map(kFuzzKey);
    map.SetPrefsFile(&writer);
    const bool set = asMap ? map.Set({{key, value}}) : writer.SetPref(key, value);
    Check(set || !FileSystemUtils::DoesPathExist(path), "a refused set leaves no file");
    std::unique_ptr<esd::PrefsWriter> reloaded = set ? Load(path) : nullptr;
    Check(!set || reloaded, "a file the engine saved loads again");
    esd::PrefsWriter& reader = set ? *reloaded : writer;
    map.SetPrefsFile(&reader);
    std::map<std::string, std::string> entries;
    std::string text;
    Check(asMap ? map.Get(entries) : reader.GetPref(key, text, std::string()), "a set reads");
    const std::string want = set ? fuzzing::AsReadBackText(value) : std::string();
    Check(asMap ? entries == (set ? decltype(entries){{key, want}} : decltype(entries){})
                : text == want,
          "a set reads back, a refused one leaves nothing");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static const std::string path = fuzzing::FuzzSandbox::Get().Home() + "/VantuUpdaterPrefs.dat";
  const std::string input = fuzzing::AsText(data, size);
  testing_support::WriteFile(path, input);
  CheckFreshSets(input);

  std::unique_ptr<esd::PrefsWriter> prefs = Load(path);
  Check((prefs != nullptr) == (input.empty() || Builder::IsWellFormed(input.data(), input.size())),
        "the file loads exactly when it is empty or well-formed");
  if (!prefs) return 0;

  const std::vector<std::string> names = SettingNames(input);
  ReadAsEveryType(*prefs, names);
  std::map<std::string, std::string> others = PlainSettings(*prefs, names);
  others.erase(kFuzzKey);

  if (!prefs->SetPref(kFuzzKey, std::string(kFuzzValue))) {
    Check(fuzzing::ReadIfPresent(path) == input, "a set that fails keeps the file");
    return 0;
  }

  std::unique_ptr<esd::PrefsWriter> reloaded = Load(path);
  Check(reloaded != nullptr, "a file the engine saved loads again");
  std::string value;
  Check(reloaded->GetPref(kFuzzKey, value, std::string()) && value == kFuzzValue,
        "a set reads back");
  std::vector<std::string> keys;
  for (const auto& setting : others) keys.push_back(setting.first);
  Check(PlainSettings(*reloaded, keys) == others, "a set keeps every other setting");
  return 0;
}
