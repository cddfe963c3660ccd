// sha256_tool FILE...: prints "<hex>  FILE" for each file, like sha256sum, using the
// device program's own sha256_file (4096-byte reads); for whole-process comparisons with
// sha256sum and openssl dgst.
#include <stdio.h>

#include "trust/sha256.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: sha256_tool FILE...\n");
    return 2;
  }
  int status = 0;
  for (int i = 1; i < argc; i++) {
    ota::u8 digest[ota::kSha256DigestBytes];
    char hex[ota::kDigestHexBytes];
    if (!ota::sha256_file(argv[i], digest)) {
      fprintf(stderr, "sha256_tool: %s: cannot open\n", argv[i]);
      status = 1;
      continue;
    }
    ota::sha256_hex(digest, hex);
    printf("%s  %s\n", hex, argv[i]);
  }
  return status;
}
