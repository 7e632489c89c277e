// Fuzzes the administrator policy reader: the input is planted as the policy file of a sandboxed
// machine and the policy is asked whether update checks are enabled.
//
// Checked against the property-list parser used directly on the same bytes: the policy answers
// exactly when they form a dictionary whose "Disable.Update" is a boolean, with its negation, and
// leaves the caller's default alone otherwise. Binary and XML property lists both reach the parser
// through the seeds.

#include <plist/plist.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "FuzzSandbox.h"
#include "xplat/FileSystemUtils.h"
#include "xplat/FolderFinder.h"
#include "xplat/PropertyList.h"
#include "xplat/VantuUpdaterAdminPrefs.h"

namespace {

using fuzzing::Check;

// The value of "Disable.Update" when `bytes` parse as a dictionary holding it as a boolean.
std::optional<bool> ExpectedDisable(const std::string& bytes) {
  if (bytes.empty()) return std::nullopt;
  plist_t root = nullptr;
  plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  esd::PropertyList owner(root);
  if (!root || plist_get_node_type(root) != PLIST_DICT) return std::nullopt;
  plist_t item = plist_dict_get_item(root, "Disable.Update");
  if (!item || plist_get_node_type(item) != PLIST_BOOLEAN) return std::nullopt;
  uint8_t flag = 0;
  plist_get_bool_val(item, &flag);
  return flag != 0;
}

const std::string& PolicyPath() {
  static const std::string path = [] {
    fuzzing::FuzzSandbox::Get();
    std::string folder;
    Check(esd::FolderFinder::GetLocalPreferencesFolderPath(folder), "the policy folder is known");
    return FileSystemUtils::AppendPathElement(folder, "com.vantu.VantuUpdater.Admin.plist");
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string input = fuzzing::AsText(data, size);
  testing_support::WriteFile(PolicyPath(), input);

  const std::optional<bool> disable = ExpectedDisable(input);
  for (const bool callerDefault : {false, true}) {
    bool enabled = callerDefault;
    const bool answered =
        VantuUpdaterAdminPrefs::GetVantuUpdaterAdminPrefs().GetUpdateCheckEnabled(enabled);
    Check(answered == disable.has_value(), "the policy answers exactly for a boolean setting");
    Check(enabled == (disable ? !*disable : callerDefault),
          "the answer is the negated setting, or the caller's default");
  }

  // The other reader of the same file: a string lookup never crashes, and answers only for text.
  const esd::PropertyList policy = CreateVantuUpdaterAdminPrefsPropListRef();
  std::string text;
  if (policy.GetString("Disable.Update", text)) Check(!disable, "a string is not a boolean");
  return 0;
}
