#pragma once
// One command, one file; main.cpp dispatches by the first word through this table.

namespace publish {

struct Command {
  const char* name;
  int (*run)(int argc, char** argv);  // argv[2..] are the command's own words
  const char* summary;
  const char* help;
};

int keygen_command(int argc, char** argv);
int chain_command(int argc, char** argv);
int catalog_command(int argc, char** argv);
int system_command(int argc, char** argv);
int kernel_command(int argc, char** argv);
int check_command(int argc, char** argv);
int sign_command(int argc, char** argv);

extern const char kKeygenHelp[];
extern const char kChainHelp[];
extern const char kCatalogHelp[];
extern const char kSystemHelp[];
extern const char kKernelHelp[];
extern const char kCheckHelp[];
extern const char kSignHelp[];

}  // namespace publish
