#pragma once

// The version of the host programs: the project's version, then the commit they were built
// from when the sources were a git checkout, e.g. "0.1.0 (commit 34f92c8d1e2f)". Each
// program prints it after its own name for --version.
extern const char ota_version_text[];
