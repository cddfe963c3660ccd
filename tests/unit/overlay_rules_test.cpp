// Which overlay targets and links a device accepts, and where they are staged.
#include <gtest/gtest.h>

#include <string>

#include "system/overlay.h"
#include "trust/catalog_text.h"

using namespace ota;

TEST(OverlayTargets, BareNames) {
  EXPECT_TRUE(valid_target("x.y-z_1"));
  EXPECT_FALSE(valid_target("..x"));
  EXPECT_FALSE(valid_target(".hidden"));
  EXPECT_FALSE(valid_target(""));
  EXPECT_FALSE(valid_target("a b"));
  EXPECT_FALSE(valid_target("a+b"));
  EXPECT_TRUE(valid_target(std::string(60, 'a').c_str()));
  EXPECT_FALSE(valid_target(std::string(61, 'a').c_str()));
}

TEST(OverlayTargets, AbsolutePaths) {
  EXPECT_FALSE(valid_target("/bin/ls"));
  EXPECT_FALSE(valid_target("/etc/../x"));
  EXPECT_FALSE(valid_target("/etc//x"));
  EXPECT_FALSE(valid_target("/etc/"));
  EXPECT_FALSE(valid_target("/etc/x/"));
  EXPECT_TRUE(valid_target("/etc/x"));
  EXPECT_TRUE(valid_target("/apps/clock/start"));
  EXPECT_TRUE(valid_target("/usr/share/a"));
  EXPECT_TRUE(valid_target("/lib/libx.so"));
  EXPECT_FALSE(valid_target("/etc/a b"));
  EXPECT_FALSE(valid_target("/tmp/x"));
  std::string longest = "/etc/" + std::string(55, 'a');
  EXPECT_TRUE(valid_target(longest.c_str()));
  EXPECT_FALSE(valid_target((longest + "a").c_str()));
}

TEST(OverlayTargets, RealPathsAndModes) {
  char real[96];
  target_real_path("x.y-z_1", real);
  EXPECT_STREQ(real, "/bin/x.y-z_1");
  target_real_path("/etc/net/hosts.conf", real);
  EXPECT_STREQ(real, "/etc/net/hosts.conf");
  EXPECT_TRUE(target_is_executable("x.y-z_1"));
  EXPECT_TRUE(target_is_executable("/apps/clock/start"));
  EXPECT_FALSE(target_is_executable("/apps/clock/start.conf"));
  EXPECT_TRUE(target_is_executable("/etc/start"));
  EXPECT_FALSE(target_is_executable("/etc/xstart"));
}

TEST(OverlayTargets, StagingNames) {
  char path[96];
  staging_path("/system/new", "/etc/net/hosts.conf", path);
  EXPECT_STREQ(path, "/system/new/etc@net@hosts.conf");
  staging_path("/system/old", "/etc/net/hosts.conf", path);
  EXPECT_STREQ(path, "/system/old/etc@net@hosts.conf");
  staging_path("/system/new", "taskbar", path);
  EXPECT_STREQ(path, "/system/new/taskbar");
}

TEST(OverlayLinks, LinkPathAndTarget) {
  EXPECT_TRUE(valid_link("/apps/x/bin", "/bin/tool"));
  EXPECT_FALSE(valid_link("tool", "/bin/tool"));
  EXPECT_FALSE(valid_link("/apps/x/bin", "/bin//tool"));
  EXPECT_FALSE(valid_link("/apps/x/bin", "/usr/bin/tool"));
  EXPECT_FALSE(valid_link("/apps/x/bin", "/bin/.tool"));
  EXPECT_FALSE(valid_link("/bin/x", "/bin/tool"));
}
