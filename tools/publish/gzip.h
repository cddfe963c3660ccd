#pragma once
// gzip through zlib. The member is written with no file name and a modification time of
// 0, so the same input always gives the same bytes.
#include "util.h"

namespace publish {

Bytes gzip_bytes(const Bytes& data);
// Unpacks the first gzip member as a device does (trailing bytes are ignored); false when
// the member is damaged or incomplete.
bool gunzip_bytes(const Bytes& packed, Bytes& out);

}  // namespace publish
