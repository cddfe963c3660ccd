#pragma once
// sim.conf as the simulator writes it for the default configuration, with the lines of one
// setting more in their place (the keys without a default stand between the grow figures
// and the boot tries).
#include <string>

inline std::string config_text_with(const std::string& lines = "") {
  return "# tavi-sim device configuration (docs/simulator.md lists the keys)\n"
         "clock 2026-02-03 09:05:00\nfree-blocks 1000000\nblock-size 4096\nfirst-ota-slot 1\ngrow-state 1\n"
         "grow-blocks 262144 1048576 65536 0\n" +
         lines + "boot-tries 3\nstart-entry boot\n";
}
