// The boot menu rewrite and the switch of the default back to entry 1, over a fuzzed
// limine.conf.
//
// Input: the menu text (the file is read up to 24,000 bytes; a file filling them is
// refused).
//
// Checked:
//   - check_and_add_entry_b gives 0 to 5; on 0 the output is its kept length, closed by a
//     0, within the capacity, and rewriting the output again changes nothing and keeps
//     the same kernel directory; into a smaller buffer it gives the same menu or, when
//     that does not fit, "too large"; on a refusal no length is kept;
//   - the first entry's kernel directory agrees with the rewrite's;
//   - with the menu as /sysesp/limine.conf in a scratch root, install_entry_b leaves the
//     rewrite's output there or, when refused, the file as it was; reset_default_entry
//     changes exactly the digit of the first "default_entry: 2" to 1, or nothing.
#include <string.h>

#include <memory>

#include "fuzz_support.h"
#include "system/menu.h"

namespace {

constexpr size_t kMenuLimit = ota::kMenuTextBytes;
constexpr size_t kOutput = ota::kMenuOutputBytes;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size >= kMenuLimit) return 0;
  std::string text(reinterpret_cast<const char*>(data), size);
  std::unique_ptr<char[]> exact(new char[size + 1]);
  memcpy(exact.get(), data, size);

  // The directory of the first entry, looked at alone.
  bool has_dir = ota::find_first_entry_kernel_dir(exact.get(), size);
  std::string first_dir(ota::menu_kernel_dir(), ota::menu_kernel_dir_length());
  FUZZ_CHECK(has_dir || first_dir.empty());
  FUZZ_CHECK(first_dir.size() < ota::kKernelDirBytes);

  std::unique_ptr<char[]> out(new char[kOutput]);
  int code = ota::check_and_add_entry_b(exact.get(), size, out.get(), kOutput);
  FUZZ_CHECK(code >= 0 && code <= 5);
  std::string rewritten;
  if (code == 0) {
    size_t n = ota::menu_new_length();
    FUZZ_CHECK(n > 0 && n < kOutput);
    FUZZ_CHECK(out[n] == 0);
    FUZZ_CHECK(!ota::menu_overflowed());
    FUZZ_CHECK(has_dir);
    std::string dir(ota::menu_kernel_dir(), ota::menu_kernel_dir_length());
    FUZZ_CHECK(dir == first_dir);
    rewritten.assign(out.get(), n);

    // Run again over its own output: nothing changes.
    std::unique_ptr<char[]> again_in(new char[n]);
    memcpy(again_in.get(), rewritten.data(), n);
    std::unique_ptr<char[]> again(new char[kOutput]);
    int code2 = ota::check_and_add_entry_b(again_in.get(), n, again.get(), kOutput);
    if (code2 != 0 || ota::menu_new_length() != n || memcmp(again.get(), rewritten.data(), n) != 0) {
      fprintf(stderr, "second rewrite: code %d, length %zu (first %zu)\n", code2, ota::menu_new_length(), n);
      FUZZ_CHECK(!"the rewrite of a rewritten menu changes it");
    }
    FUZZ_CHECK(std::string(ota::menu_kernel_dir(), ota::menu_kernel_dir_length()) == dir);

    // Into a smaller buffer: the same menu when it fits with its closing 0, else "too
    // large" and nothing kept.
    size_t small = 64 + size % 4096;
    std::unique_ptr<char[]> tight(new char[small]);
    int code3 = ota::check_and_add_entry_b(exact.get(), size, tight.get(), small);
    if (n < small) {
      FUZZ_CHECK(code3 == 0 && ota::menu_new_length() == n && memcmp(tight.get(), rewritten.data(), n) == 0);
    } else {
      FUZZ_CHECK(code3 == ota::kMenuTooLarge && ota::menu_overflowed() && ota::menu_new_length() == 0);
    }
  } else {
    FUZZ_CHECK(ota::menu_new_length() == 0);
    FUZZ_CHECK(code == ota::kMenuTooLarge ? ota::menu_overflowed() : !ota::menu_overflowed());
  }

  // The file operations, on the menu in a scratch device root.
  DeviceRoot& root = DeviceRoot::get();
  root.remove("/sysesp/limine.nw");
  root.put("/sysesp/limine.conf", text);
  bool installed;
  {
    Silence quiet;
    installed = ota::install_entry_b();
  }
  FUZZ_CHECK(!root.has("/sysesp/limine.nw"));
  std::string after = root.get("/sysesp/limine.conf");
  if (size > 0 && code == 0) {
    FUZZ_CHECK(installed);
    FUZZ_CHECK(after == rewritten);
  } else {
    FUZZ_CHECK(!installed);
    FUZZ_CHECK(after == text);
  }

  root.put("/sysesp/limine.conf", text);
  bool reset = ota::reset_default_entry();
  after = root.get("/sysesp/limine.conf");
  size_t at = text.find("default_entry: 2");
  if (size > 0 && at != std::string::npos) {
    FUZZ_CHECK(reset);
    std::string expected = text;
    expected[at + 15] = '1';
    FUZZ_CHECK(after == expected);
  } else {
    FUZZ_CHECK(!reset);
    FUZZ_CHECK(after == text);
  }
  return 0;
}
