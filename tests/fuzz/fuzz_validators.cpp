// The overlay target and link validators, and the paths made from a valid target.
//
// Input: a length-prefixed first string (a target, or a link path), then the second
// string (a link target). Both end at their first zero byte, as manifest fields do.
//
// Checked against the documented rules, written again here:
//   - a bare name (not starting with "/") is 1 to 60 letters, digits, ".", "-" and "_",
//     not starting with ".", and goes to /bin, executable;
//   - an absolute path is 6 to 60 characters below /apps/, /etc/, /usr/share/ or /lib/,
//     of letters, digits, ".", "-", "_" and "/", with neither ".." nor "//" and no final
//     "/"; it is executable only when it ends with "/start" and is at least 7 long;
//   - a link is an allowed absolute path to "/bin/" and a valid bare name;
//   - the staging name drops the leading "/" and turns the other "/" into "@".
#include <string.h>

#include "fuzz_support.h"
#include "system/overlay.h"

namespace {

bool name_char(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
         c == '_';
}

bool bare_name_ok(const std::string& s) {
  if (s.empty() || s.size() > 60 || s[0] == '.') return false;
  for (char c : s)
    if (!name_char(c)) return false;
  return true;
}

bool absolute_ok(const std::string& s) {
  if (s.size() < 6 || s.size() > 60) return false;
  bool area = false;
  for (const char* a : {"/apps/", "/etc/", "/usr/share/", "/lib/"}) area = area || s.rfind(a, 0) == 0;
  if (!area) return false;
  for (char c : s)
    if (!name_char(c) && c != '/') return false;
  return s.find("..") == std::string::npos && s.find("//") == std::string::npos && s.back() != '/';
}

bool target_ok(const std::string& s) { return !s.empty() && s[0] == '/' ? absolute_ok(s) : bare_name_ok(s); }

bool link_ok(const std::string& path, const std::string& target) {
  return !path.empty() && path[0] == '/' && absolute_ok(path) && target.rfind("/bin/", 0) == 0 &&
         bare_name_ok(target.substr(5));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string first = take_piece(data, size, 200);
  std::string second(reinterpret_cast<const char*>(data), size < 200 ? size : 200);
  first = first.substr(0, strnlen(first.c_str(), first.size()));
  second = second.substr(0, strnlen(second.c_str(), second.size()));

  bool target = ota::valid_target(first.c_str());
  FUZZ_CHECK(target == target_ok(first));
  FUZZ_CHECK(ota::valid_bare_name(first.c_str()) == bare_name_ok(first));
  FUZZ_CHECK(ota::valid_link(first.c_str(), second.c_str()) == link_ok(first, second));

  if (target) {
    char real[128];
    ota::target_real_path(first.c_str(), real);
    FUZZ_CHECK(std::string(real) == (first[0] == '/' ? first : "/bin/" + first));
    bool executable = first[0] != '/' || (first.size() >= 7 && first.compare(first.size() - 6, 6, "/start") == 0);
    FUZZ_CHECK(ota::target_is_executable(first.c_str()) == executable);
    char staged[128];
    ota::staging_path("/system/new", first.c_str(), staged);
    std::string name = first[0] == '/' ? first.substr(1) : first;
    for (char& c : name)
      if (c == '/') c = '@';
    FUZZ_CHECK(std::string(staged) == "/system/new/" + name);
    FUZZ_CHECK(strchr(staged + strlen("/system/new/"), '/') == nullptr);
  }
  return 0;
}
