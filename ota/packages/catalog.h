#pragma once
// The signed catalog VERZEICHNIS: fetched, verified, its key changes and blocked versions
// taken in, and its package lines read. Also the installer's own catalog, CATALOG.

#include "config/source.h"
#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

// Platform classes of a paket line.
constexpr int kNoPlatform = 0;
constexpr int kOtherPlatform = 1;
constexpr int kThisPlatform = 2;

struct InstallCatalog {
  char text[kInstallCatalogBytes + 1];
  usize length;
};
extern InstallCatalog install_catalog;

int load_catalog(SourceKind kind, bool verbose);
const char* nth_package_line(u64 n);
u64 package_count();
u64 platform_package_count();
int package_platform(const char* line);
u64 catalog_version();
void load_install_catalog();
int catalog_says_current(const char* name);
int package_needs_update(const char* line);

}  // namespace ota
