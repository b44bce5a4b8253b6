// kovactl: the kova service from the command line, through libkova-api.
//
// kovactl [--json] [-v] FAMILY [COMMAND] [ARGS...]; the global options may
// stand anywhere on the line. Exit status: 0 success, 1 the library or the
// service reported a failure, 2 bad usage.
#include <cstdio>
#include <cstring>
#include <string>

#include "kova_api.h"
#include "kovactl.h"

// The library's connection, exported for platform tools. Fire-and-forget
// calls are only queued on it; the process must not exit before they left.
extern "C" GDBusConnection *_kova_dbus_get_connection(void);

namespace kovactl {
namespace {

bool g_ran = false;  // a command talked to the library

std::string Usage(const Command &c) {
  return std::string("kovactl ") + c.family + (c.name ? std::string(" ") + c.name : "") +
         (c.usage[0] ? std::string(" ") + c.usage : "");
}

void PrintOverview(FILE *out) {
  std::fprintf(out,
               "Usage: kovactl [--json] [-v] FAMILY [COMMAND] [ARGS...]\n"
               "Talks to the kova resource service through libkova-api.\n\n"
               "Options (anywhere on the line):\n"
               "  --json         JSON Lines: one JSON object per line, its \"kind\" saying what it is;\n"
               "                 a failure carries an \"error\" field\n"
               "  -v, --verbose  write the library's log lines to stderr\n"
               "  -h, --help     this help; 'kovactl FAMILY --help' and 'kovactl FAMILY COMMAND --help'\n"
               "                 explain each argument\n"
               "  --version      kovactl's version\n\n"
               "Commands:\n");
  for (const Command &c : Commands()) std::fprintf(out, "  %-62s %s\n", Usage(c).c_str(), c.summary);
  std::fprintf(out,
               "\nOutput: one line per result, zone or signal: \"kind key=value ...\" (text) or a JSON object.\n"
               "Answers the library made without the service carry source=library (the service is not\n"
               "ready) or source=platform (the resource manager, while no policy is active).\n"
               "Without -v kovactl keeps the library's log lines to itself and prints a failure's reason\n"
               "on stderr. The platform log stand-in writes only errors unless MARLO_LOG_LEVEL=info.\n"
               "Environment: DBUS_SYSTEM_BUS_ADDRESS (the bus), PELK_ROOT (where the service's markers are;\n"
               "eval \"$(kova-sim --private-bus --sh-syntax)\" sets both).\n"
               "Exit status: 0 success, 1 a failure (the service's or the library's), 2 bad usage.\n");
}

void PrintFamily(FILE *out, const std::string &family) {
  std::fprintf(out, "Commands of %s (kovactl %s COMMAND --help for one):\n", family.c_str(), family.c_str());
  for (const Command &c : Commands()) {
    if (family == c.family) std::fprintf(out, "  %-62s %s\n", Usage(c).c_str(), c.summary);
  }
}

void PrintCommand(FILE *out, const Command &c) {
  std::fprintf(out, "Usage: %s\n%s\n%s%s", Usage(c).c_str(), c.summary, c.details.empty() ? "" : "\nArguments:\n",
               c.details.c_str());
}

bool FamilyExists(const std::string &family) {
  for (const Command &c : Commands()) {
    if (family == c.family) return true;
  }
  return false;
}

const Command *Find(const std::string &family, const std::string &name) {
  for (const Command &c : Commands()) {
    if (family == c.family && (c.name == nullptr || name == c.name)) return &c;
  }
  return nullptr;
}

int Run(int argc, char **argv) {
  Args words;
  bool help = false, version = false, rest = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (rest) {
      words.push_back(a);
    } else if (a == "--") {
      rest = true;
    } else if (a == "--json") {
      g_options.json = true;
    } else if (a == "-v" || a == "--verbose") {
      g_options.verbose = true;
    } else if (a == "-h" || a == "--help") {
      help = true;
    } else if (a == "--version") {
      version = true;
    } else {
      words.push_back(a);
    }
  }
  if (version) {
    std::printf("kovactl %s\n", KOVA_VERSION);
    return kOk;
  }
  if (words.empty()) {
    PrintOverview(help ? stdout : stderr);
    return help ? kOk : kUsage;
  }
  const std::string family = words[0];
  if (!FamilyExists(family)) throw UsageError{"unknown family '" + family + "' (see kovactl --help)"};
  const Command *c = Find(family, words.size() > 1 ? words[1] : "");
  if (c == nullptr) {
    if (help) {
      PrintFamily(stdout, family);
      return kOk;
    }
    if (words.size() < 2) {
      std::fprintf(stderr, "kovactl: %s needs a command\n", family.c_str());
    } else {
      std::fprintf(stderr, "kovactl: unknown command '%s' of %s\n", words[1].c_str(), family.c_str());
    }
    PrintFamily(stderr, family);
    return kUsage;
  }
  if (help) {
    PrintCommand(stdout, *c);
    return kOk;
  }
  const Args args(words.begin() + (c->name ? 2 : 1), words.end());
  if (args.size() < c->min_args || args.size() > c->max_args) throw UsageError{"usage: " + Usage(*c)};
  // The monitor and status never need the markers (status shows them).
  if (std::strcmp(c->family, "monitor") != 0 && std::strcmp(c->family, "status") != 0) WarnIfNotReady();
  library_log::Begin();
  g_ran = true;
  return c->run(args);
}

// Sends whatever the library queued (fire-and-forget calls) before exiting.
void Flush() {
  if (!g_ran) return;
  if (GDBusConnection *c = _kova_dbus_get_connection()) g_dbus_connection_flush_sync(c, nullptr, nullptr);
}

}  // namespace
}  // namespace kovactl

int main(int argc, char **argv) {
  try {
    const int status = kovactl::Run(argc, argv);
    kovactl::Flush();
    return status;
  } catch (const kovactl::UsageError &e) {
    std::fprintf(stderr, "kovactl: %s\n", e.message.c_str());
    return kovactl::kUsage;
  }
}
