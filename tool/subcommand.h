// What the tool can do: one of these for each word that may follow its name.
#ifndef TOOL_SUBCOMMAND_H
#define TOOL_SUBCOMMAND_H

// The exit status, the same for all of them.
enum ExitStatus { exit_ok = 0, exit_failed = 1, exit_usage = 2 };

struct Subcommand {
  const char* name;
  const char* summary;
  const char* help;
  int (*run)(int argc, char** argv);
};

extern const Subcommand call_subcommand;
extern const Subcommand serve_subcommand;
extern const Subcommand ping_subcommand;
extern const Subcommand proxy_subcommand;
extern const Subcommand decode_subcommand;

#endif
