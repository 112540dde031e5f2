#include "refdaemon/options.h"

#include <getopt.h>

#include <cstdlib>

#include "refdaemon/extensiondrops.h"

namespace lumo::refdaemon {

const char* const kUsage =
    "Usage: lumo-refdaemon [options]\n"
    "Stands in for the protection daemon: listens on the daemon's socket,\n"
    "accepts the extension's registration, prints every call it receives as\n"
    "one JSON line on stdout, and pushes policy, exclusions, mount points and\n"
    "print verdicts to it. Commands typed on stdin change them while it runs\n"
    "(type help). Log lines go to stderr.\n"
    "\n"
    "  --policy LIST          policy switches, e.g.\n"
    "                         dup=1,webcontrol=0,devicecontrol=1,antitampering=0\n"
    "  --exclude-path P       exclude the process with executable P (repeatable)\n"
    "  --exclude-prefix P     exclude processes under directory P (repeatable)\n"
    "  --exclude-bundle ID    exclude processes with code-signing id ID (repeatable)\n"
    "  --mount PATH=TYPE      announce a mount point: removable, network or regular\n"
    "                         (repeatable)\n"
    "  --announce-mounts      announce this machine's mounts (/proc/self/mountinfo;\n"
    "                         removable per /sys/block/<disk>/removable, network by\n"
    "                         file system type)\n"
    "  --print-verdict V      answer every print event at once: allow or block\n"
    "  --kind LIST            print only these kinds of event: exec, exit, file,\n"
    "                         print (comma-separated; repeatable)\n"
    "  --path DIR             print only events with a path under DIR: a process's\n"
    "                         executable, a file event's names, a print job's\n"
    "                         data file (repeatable)\n"
    "  --pid LIST             print only events of these processes (repeatable)\n"
    "  --exe PATH             print only events of processes running PATH; file\n"
    "                         and print events by their pid's last exec seen, else\n"
    "                         /proc/PID/exe (repeatable)\n"
    "                         Filters of different kinds must all hold.\n"
    "  --metrics-file FILE    the extension's metrics file, read by the stats\n"
    "                         command for its drops (default $LUMO_METRICS_FILE,\n"
    "                         else /var/lib/prometheus/node-exporter/lumo-es.prom)\n"
    "  --reject               answer registrations NO (nothing is pushed then)\n"
    "  --unprivileged         admit extensions not running as root\n"
    "  --runtime-dir DIR      where the socket goes (default $LUMO_RUNTIME_DIR, else\n"
    "                         /run/tarvex); the socket is DIR/SERVICE.sock\n"
    "  --service NAME         service name (default com.tarvex.lumo.protectiond.xpc)\n"
    "  --verbose              debug log lines too\n"
    "  --help                 this text\n"
    "\n"
    "Output lines: {\"event\":SELECTOR,...} for each call, with the event's\n"
    "entries in order and numbers tagged by kind ({\"int\":2}, {\"uint\":12},\n"
    "{\"longlong\":-1}, {\"ulonglong\":5}, {\"bool\":true}); {\"sent\":SELECTOR,...}\n"
    "for each push; {\"reply\":SELECTOR,...} for the extension's answers;\n"
    "{\"connection\":\"accepted\"|\"closed\",...}; {\"error\":TEXT} for a bad command;\n"
    "{\"stats\":{...}} for the stats command. Enum numbers have the schema's name\n"
    "beside them: \"fileop\":{\"int\":6},\"fileop_name\":\"kFileRename\".\n";

namespace {

enum Option : int {
  kPolicy = 1000,
  kExcludePath,
  kExcludePrefix,
  kExcludeBundle,
  kMount,
  kAnnounceMounts,
  kPrintVerdict,
  kReject,
  kUnprivileged,
  kRuntimeDir,
  kService,
  kVerbose,
  kHelp,
  kKind,
  kPath,
  kPid,
  kExe,
  kMetricsFile,
};

const option kLongOptions[] = {
    {"policy", required_argument, nullptr, kPolicy},
    {"exclude-path", required_argument, nullptr, kExcludePath},
    {"exclude-prefix", required_argument, nullptr, kExcludePrefix},
    {"exclude-bundle", required_argument, nullptr, kExcludeBundle},
    {"mount", required_argument, nullptr, kMount},
    {"announce-mounts", no_argument, nullptr, kAnnounceMounts},
    {"print-verdict", required_argument, nullptr, kPrintVerdict},
    {"reject", no_argument, nullptr, kReject},
    {"unprivileged", no_argument, nullptr, kUnprivileged},
    {"runtime-dir", required_argument, nullptr, kRuntimeDir},
    {"service", required_argument, nullptr, kService},
    {"verbose", no_argument, nullptr, kVerbose},
    {"help", no_argument, nullptr, kHelp},
    {"kind", required_argument, nullptr, kKind},
    {"path", required_argument, nullptr, kPath},
    {"pid", required_argument, nullptr, kPid},
    {"exe", required_argument, nullptr, kExe},
    {"metrics-file", required_argument, nullptr, kMetricsFile},
    {nullptr, 0, nullptr, 0},
};

void exclude(Options* options, Exclusion::Kind kind, const char* value) {
  auto& list = options->settings.exclusions;
  if (!list) list.emplace();
  list->push_back({kind, value});
}

}  // namespace

std::string parseOptions(int argc, char* const* argv, Options* options) {
  opterr = 0;
  optind = 0;  // glibc: start over, so the parser can run more than once
  for (;;) {
    const int c = getopt_long(argc, argv, ":", kLongOptions, nullptr);
    if (c == -1) break;
    switch (c) {
      case kPolicy: {
        PolicySwitches policy = options->settings.policy.value_or(PolicySwitches{});
        std::string error = applyPolicyText(optarg, &policy);
        if (!error.empty()) return error;
        options->settings.policy = policy;
        break;
      }
      case kExcludePath: exclude(options, Exclusion::Kind::Path, optarg); break;
      case kExcludePrefix: exclude(options, Exclusion::Kind::Prefix, optarg); break;
      case kExcludeBundle: exclude(options, Exclusion::Kind::Bundle, optarg); break;
      case kMount: {
        Mount mount;
        std::string error = parseMountText(optarg, &mount);
        if (!error.empty()) return error;
        options->settings.mounts.push_back(std::move(mount));
        break;
      }
      case kAnnounceMounts: options->announceMounts = true; break;
      case kPrintVerdict: {
        const std::string v = optarg;
        if (v != "allow" && v != "block") return "--print-verdict takes allow or block";
        options->settings.printVerdict = v == "allow";
        break;
      }
      case kReject: options->settings.reject = true; break;
      case kUnprivileged: options->privileged = false; break;
      case kRuntimeDir: options->runtimeDir = optarg; break;
      case kService: options->serviceName = optarg; break;
      case kVerbose: options->verbose = true; break;
      case kHelp: options->help = true; break;
      case kKind:
      case kPath:
      case kPid:
      case kExe: {
        const char* what = c == kKind ? "kind" : c == kPath ? "path" : c == kPid ? "pid" : "exe";
        std::string error = addFilterCriterion(what, optarg, &options->settings.filter);
        if (!error.empty()) return error;
        break;
      }
      case kMetricsFile: options->metricsFile = optarg; break;
      case ':': return std::string("option ") + argv[optind - 1] + " needs a value";
      default: return std::string("unknown option ") + argv[optind - 1];
    }
  }
  if (optind < argc) return std::string("unexpected argument ") + argv[optind];
  if (options->metricsFile.empty()) {
    const char* fromEnvironment = std::getenv("LUMO_METRICS_FILE");
    options->metricsFile = fromEnvironment != nullptr && *fromEnvironment != '\0'
                               ? fromEnvironment
                               : kDefaultMetricsFile;
  }
  return {};
}

}  // namespace lumo::refdaemon
