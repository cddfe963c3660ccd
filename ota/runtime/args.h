#pragma once
// The argument block the kernel hands the program: a 64-bit count, then the addresses of
// the words. It is read in place and never copied; the count alone bounds the words.
// The dispatcher reads the first word, and the command families that take words of their
// own (`ota system ...`, `ota system grow ...`) read theirs from the same block.

#include "runtime/syscall.h"

namespace ota {

using ArgBlock = const u64*;

inline u64 arg_count(ArgBlock block) { return block == nullptr ? 0 : block[0]; }
inline const char* arg_word(ArgBlock block, u64 i) {
  return i < arg_count(block) ? reinterpret_cast<const char*>(block[1 + i]) : nullptr;
}

}  // namespace ota
