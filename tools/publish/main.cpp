// ota-publish: builds, signs and checks update sources for tavi devices.
#include <cstdio>
#include <cstring>
#include <exception>

#include "args.h"
#include "commands.h"
#include "util.h"
#include "version.h"

namespace publish {
namespace {

const Command kCommands[] = {
    {"keygen", keygen_command, "make an Ed25519 key pair (PREFIX.key or in a token, PREFIX.pub)", kKeygenHelp},
    {"chain", chain_command, "sign one key change (a \"kette\" line)", kChainHelp},
    {"catalog", catalog_command, "build a signed package source", kCatalogHelp},
    {"system", system_command, "build a signed system source", kSystemHelp},
    {"sign", sign_command, "sign files of a source built with --unsigned (FILE.sig)", kSignHelp},
    {"kernel", kernel_command, "write a stand-in kernel image for the simulator", kKernelHelp},
    {"check", check_command, "check a source as a device would", kCheckHelp},
};

void usage(std::FILE* out) {
  std::fprintf(out, "usage: ota-publish COMMAND [OPTIONS]   (ota-publish COMMAND --help for more)\n\n");
  for (const Command& c : kCommands) std::fprintf(out, "  %-8s %s\n", c.name, c.summary);
  std::fprintf(out,
               "\nota-publish --version prints the version.\n"
               "\nExit status: 0 done (check: the source would be accepted), 1 refused or failed,\n"
               "2 a mistake in the command line.\n");
}

int run(int argc, char** argv) {
  if (argc < 2) {
    usage(stderr);
    return 2;
  }
  const char* word = argv[1];
  if (std::strcmp(word, "--version") == 0) {
    std::printf("ota-publish %s\n", ota_version_text);
    return 0;
  }
  if (std::strcmp(word, "--help") == 0 || std::strcmp(word, "-h") == 0 || std::strcmp(word, "help") == 0) {
    if (argc >= 3) {
      for (const Command& c : kCommands) {
        if (std::strcmp(argv[2], c.name) == 0) {
          std::fputs(c.help, stdout);
          return 0;
        }
      }
    }
    usage(stdout);
    return 0;
  }
  for (const Command& c : kCommands) {
    if (std::strcmp(word, c.name) != 0) continue;
    if (wants_help(argc, argv, 2)) {
      std::fputs(c.help, stdout);
      return 0;
    }
    try {
      return c.run(argc, argv);
    } catch (const UsageError& e) {
      std::fprintf(stderr, "ota-publish %s: %s\n", c.name, e.what());
      std::fprintf(stderr, "(ota-publish %s --help shows the options)\n", c.name);
      return 2;
    }
  }
  std::fprintf(stderr, "ota-publish: unknown command %s\n", word);
  usage(stderr);
  return 2;
}

}  // namespace
}  // namespace publish

int main(int argc, char** argv) {
  try {
    return publish::run(argc, argv);
  } catch (const publish::Error& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "ota-publish: %s\n", e.what());
    return 1;
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "ota-publish: failed: %s\n", e.what());
    return 1;
  }
}

#if defined(__SANITIZE_ADDRESS__)
// In sanitizer builds: SoftHSM2 2.6 leaks a few bytes each time it decodes an Edwards key
// for a signature. They are the module's, and the module is what the tests sign with. The
// module's caller is found only with full stacks (libcrypto keeps no frame pointers). These
// live in the program, not in the library, because the tests that link the library carry
// their own.
extern "C" const char* __lsan_default_suppressions() { return "leak:libsofthsm2.so\n"; }
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }
#endif
