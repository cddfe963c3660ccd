#pragma once
// The signed catalog VERZEICHNIS: fetched, verified, its key changes and blocked versions
// taken in, and its package lines read. Also the installer's own catalog, CATALOG.

#include "config/source.h"
#include "device_limits.h"
#include "runtime/syscall.h"

namespace ota {

// Platform classes of a paket line: no platform given, another platform, this machine.
enum class Platform { none, other, this_machine };

struct InstallCatalog {
  char text[kInstallCatalogBytes + 1];
  usize length;
};
extern InstallCatalog install_catalog;

// False, with the failure printed, when no verified catalog could be had.
bool load_catalog(SourceKind kind, bool verbose);
const char* nth_package_line(u64 n);
u64 package_count();
u64 platform_package_count();
Platform package_platform(const char* line);
u64 catalog_version();
void load_install_catalog();
bool catalog_says_current(const char* name);
bool package_needs_update(const char* line);

}  // namespace ota
