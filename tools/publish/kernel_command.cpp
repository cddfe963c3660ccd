// ota-publish kernel: a small stand-in kernel image for the simulator's boot model. Its
// first line says which build it is and whether it starts healthily; a multiboot1 header
// asks for a framebuffer, as a real tavi kernel's must; the rest is filler so that images
// have a realistic, chosen size.
#include <cstdio>

#include "args.h"
#include "commands.h"
#include "kernel_image.h"
#include "limits.h"
#include "multiboot.h"
#include "output.h"
#include "rules.h"

namespace publish {

const char kKernelHelp[] =
    "usage: ota-publish kernel --build B --commit C [--broken] [--size BYTES] --out FILE\n"
    "                          [--force]\n"
    "\n"
    "Writes a stand-in kernel image for the simulator: the line\n"
    "  TAVI-KERNEL build=B commit=C health=good   (health=broken with --broken)\n"
    "and a LF, then filler bytes up to BYTES in all (default 4096): the byte at offset i\n"
    "of the image is i mod 251, except for a 48-byte multiboot1 header at the first offset\n"
    "after the line that is a multiple of 4. The header asks for a 1024x768x32 framebuffer\n"
    "(flags 0x00010004), as Limine on UEFI requires of a multiboot1 kernel. B and C follow\n"
    "the rules of `ota-publish system`.\n";

namespace {
constexpr std::uint64_t kDefaultSize = 4096;
constexpr std::uint64_t kMaxSize = 256ull << 20;  // a stand-in has no reason to be larger
}  // namespace

int kernel_command(int argc, char** argv) {
  Args args(argc, argv, 2,
            {{"--build", true, false},
             {"--commit", true, false},
             {"--broken", false, false},
             {"--size", true, false},
             {"--out", true, false},
             {"--force", false, false}});
  if (!args.positional().empty()) throw UsageError("kernel takes no word " + args.positional().front());
  std::string out = args.required("--out");
  std::uint64_t build = parse_number(args.required("--build"), "build", limits::kStoredNumberMax);
  if (build == 0) throw Error("build 0 means \"none\" on a device");
  std::string commit = args.required("--commit");
  check_commit(commit);
  std::uint64_t size = kDefaultSize;
  if (auto text = args.get("--size")) size = parse_number(*text, "image size", kMaxSize);
  std::string header = kernel_image::stand_in_first_line(build, commit, !args.has("--broken"));
  if (size < stand_in_minimum(header)) {
    throw Error("image size " + std::to_string(size) + " is smaller than its first line and multiboot1 header (" +
                std::to_string(stand_in_minimum(header)) + " bytes)");
  }
  bool force = args.has("--force");
  check_output_free(out, force, "kernel image", false);
  Bytes image = stand_in_image(header, size);
  write_file_atomic(out, image, 0644, force, "kernel image");
  std::printf("ota-publish: wrote %s: %llu bytes, %s", out.c_str(), static_cast<unsigned long long>(size),
              header.c_str());
  return 0;
}

}  // namespace publish
