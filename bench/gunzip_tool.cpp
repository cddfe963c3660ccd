// gunzip_tool IN OUT: unpacks the first gzip member of IN into OUT with gunzip_stream,
// for whole-process comparisons with pigz -dc and libdeflate-gunzip -c. OUT may be
// /dev/null or - (standard output). Exits with the decoder's result code.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "gzip/gunzip.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: gunzip_tool IN OUT\n");
    return 2;
  }
  int in = open(argv[1], O_RDONLY);
  if (in < 0) {
    perror(argv[1]);
    return 5;
  }
  int out = strcmp(argv[2], "-") == 0 ? 1 : open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (out < 0) {
    perror(argv[2]);
    return 5;
  }
  unsigned long long code = ota::gunzip_stream(in, out);
  if (code != 0) fprintf(stderr, "gunzip_tool: failed, code %llu\n", code);
  close(in);
  if (out != 1) close(out);
  return static_cast<int>(code);
}
