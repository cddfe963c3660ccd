// Reading a fleet device's output for the lines that explain why it is not on the release.

#include <cstring>

#include "fleet.h"
#include "host.h"

namespace tavisim::fleet {

namespace {

// What a device said that explains why it is not on the release: a refusal is the device
// saying no to the release; a trial that was rolled back leaves the next step to a person;
// the others pass when the link holds.
enum class Kind { refusal, person, trouble };
struct KnownSaying {
  const char* prefix;
  const char* reason;
  Kind kind;
};
// The beginning of each line that explains, and the reason it stands for.
constexpr KnownSaying kSayings[] = {
    {"ota: ROLLBACK REFUSED", "rollback-refused", Kind::refusal},
    {"ota: VERSION BLOCKED", "version-blocked", Kind::refusal},
    {"ota: SIGNATURE OF THE VERZEICHNIS WRONG", "signature-wrong", Kind::refusal},
    {"ota: KEY CHANGE: the chain is BROKEN", "key-chain-broken", Kind::refusal},
    {"ota: NO SIGNATURE for the VERZEICHNIS", "no-signature", Kind::refusal},
    {"ota: this is not a VERZEICHNIS", "not-a-catalog", Kind::refusal},
    {"ota: no trusted key", "no-trusted-key", Kind::refusal},
    {"ota: NOT ENOUGH SPACE", "no-space", Kind::refusal},
    {"ota: not enough free space for the overlay files", "no-space", Kind::refusal},
    {"ota: HASH MISMATCH", "hash-mismatch", Kind::refusal},
    {"ota: NO PACKAGE for this platform", "no-package", Kind::refusal},
    {"ota: the VERZEICHNIS names no package", "no-package", Kind::refusal},
    {"ota: tpk did not install", "installer-failed", Kind::refusal},
    {"ota: this system is too old for an incremental update", "system-too-old", Kind::refusal},
    {"ota: this source offers no system update", "no-system-line", Kind::refusal},
    {"ota: system manifest has no kernel entry", "no-kernel-entry", Kind::refusal},
    {"ota: cannot mount the ESP", "esp-unusable", Kind::refusal},
    {"ota: overlay install failed", "overlay-failed", Kind::refusal},
    {"ota: bad overlay entry", "overlay-failed", Kind::refusal},
    {"ota: unpacked file has the wrong size or hash", "overlay-failed", Kind::refusal},
    {"ota: gunzip failed", "overlay-failed", Kind::refusal},
    {"system: trial kernel was rolled back", "system-rolled-back", Kind::person},
    {"ota: cannot fetch: ", "unreachable", Kind::trouble},
    {"ota: wrong length, REJECTED", "download-incomplete", Kind::trouble},
    {"ota: kernel download or check failed", "download-incomplete", Kind::trouble},
    {"ota: overlay file download or check failed", "download-incomplete", Kind::trouble},
};

}  // namespace

void Heard::listen(const std::string& text) {
  std::vector<std::string> lines = text_lines(text);
  for (size_t k = 0; k < lines.size(); k++) {
    for (auto& s : kSayings) {
      if (lines[k].compare(0, strlen(s.prefix), s.prefix) != 0) continue;
      // A message goes on in lines that begin with five blanks.
      std::string said = trim(lines[k]);
      while (k + 1 < lines.size() && lines[k + 1].compare(0, 5, "     ") == 0) said += " " + trim(lines[++k]);
      if (s.kind == Kind::person) rollbacks++;
      Saying& slot = s.kind == Kind::refusal ? refusal : s.kind == Kind::person ? person : trouble;
      slot = {s.reason, said};
      break;
    }
  }
}

}  // namespace tavisim::fleet
