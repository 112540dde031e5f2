#include "refdaemon/commands.h"

#include <vector>

#include "refdaemon/jsonline.h"
#include "refdaemon/mountscan.h"

namespace lumo::refdaemon {

const char* const kCommandHelp =
    "Commands (one a line; changes go to every registered extension at once):\n"
    "  policy dup=1,webcontrol=0,...   change policy switches (dup, webcontrol,\n"
    "                                  devicecontrol, antitampering), push the policy\n"
    "  exclude path|prefix|bundle V    add an exclusion, push the whole list\n"
    "  exclude clear                   push an empty exclusion list\n"
    "  mount PATH=removable|network|regular\n"
    "  unmount PATH\n"
    "  clear-mounts\n"
    "  announce-mounts                 rescan /proc/self/mountinfo, push the table anew\n"
    "  verdict FILE allow|block        print-job verdict for a spooled data file\n"
    "  filter kind|path|pid|exe LIST   print only matching events (see --help);\n"
    "                                  criteria add up, values in a list are\n"
    "                                  alternatives\n"
    "  filter clear                    print every event again\n"
    "  filter                          show the filter\n"
    "  stats                           events received and shown per kind, the\n"
    "                                  links, drops the extension counted\n"
    "  help, quit\n";

namespace {

std::string_view trimmed(std::string_view s) {
  const size_t begin = s.find_first_not_of(" \t\r");
  if (begin == std::string_view::npos) return {};
  const size_t end = s.find_last_not_of(" \t\r");
  return s.substr(begin, end - begin + 1);
}

// Splits off the first word; `rest` is what follows, trimmed.
std::string_view firstWord(std::string_view line, std::string_view* rest) {
  const size_t space = line.find_first_of(" \t");
  *rest = space == std::string_view::npos ? std::string_view() : trimmed(line.substr(space));
  return line.substr(0, space);
}

CommandResult failed(std::string error) {
  CommandResult result;
  result.error = std::move(error);
  return result;
}

CommandResult answered(std::string output) {
  CommandResult result;
  result.output = std::move(output);
  return result;
}

CommandResult asking(bool CommandResult::*what) {
  CommandResult result;
  result.*what = true;
  return result;
}

CommandResult exclude(std::string_view args, RefDaemon& daemon) {
  std::string_view value;
  const std::string_view kind = firstWord(args, &value);
  if (kind == "clear" && value.empty()) {
    daemon.clearExclusions();
    return {};
  }
  Exclusion exclusion{Exclusion::Kind::Path, std::string(value)};
  if (kind == "prefix") {
    exclusion.kind = Exclusion::Kind::Prefix;
  } else if (kind == "bundle") {
    exclusion.kind = Exclusion::Kind::Bundle;
  } else if (kind != "path") {
    return failed("exclude takes path, prefix, bundle or clear");
  }
  if (value.empty()) return failed("exclude " + std::string(kind) + " needs a value");
  daemon.addExclusion(std::move(exclusion));
  return {};
}

CommandResult filter(std::string_view args, RefDaemon& daemon) {
  std::string_view values;
  const std::string_view what = firstWord(args, &values);
  if (what.empty()) return answered(JsonLine().text("filter", daemon.filter().describe()).str());
  if (what == "clear" && values.empty()) {
    daemon.setFilter({});
    return {};
  }
  EventFilter changed = daemon.filter();
  std::string error = addFilterCriterion(what, values, &changed);
  if (!error.empty()) return failed(std::move(error));
  daemon.setFilter(std::move(changed));
  return {};
}

CommandResult verdict(std::string_view args, RefDaemon& daemon) {
  const size_t space = args.find_last_of(" \t");
  if (space == std::string_view::npos) return failed("verdict takes FILE allow|block");
  const std::string_view word = args.substr(space + 1);
  const std::string file(trimmed(args.substr(0, space)));
  if (word != "allow" && word != "block") {
    return failed("verdict \"" + std::string(word) + "\" is not allow or block");
  }
  daemon.sendVerdict(file, word == "allow");
  return {};
}

}  // namespace

CommandResult runCommand(std::string_view line, RefDaemon& daemon) {
  std::string_view args;
  const std::string_view command = firstWord(trimmed(line), &args);
  if (command.empty()) return {};
  if (command == "help") return asking(&CommandResult::help);
  if (command == "quit") return asking(&CommandResult::quit);
  if (command == "stats" && args.empty()) return asking(&CommandResult::stats);
  if (command == "filter") return filter(args, daemon);
  if (command == "policy") {
    PolicySwitches policy = daemon.policy();
    std::string error = applyPolicyText(args, &policy);
    if (!error.empty()) return failed(std::move(error));
    daemon.setPolicy(policy);
    return {};
  }
  if (command == "exclude") return exclude(args, daemon);
  if (command == "mount") {
    Mount mount;
    std::string error = parseMountText(args, &mount);
    if (!error.empty()) return failed(std::move(error));
    daemon.addMount(std::move(mount));
    return {};
  }
  if (command == "unmount") {
    if (args.empty()) return failed("unmount takes PATH");
    if (!daemon.removeMount(std::string(args))) {
      return failed("no mount " + std::string(args) + " in the table");
    }
    return {};
  }
  if (command == "clear-mounts" && args.empty()) {
    daemon.clearMounts();
    return {};
  }
  if (command == "announce-mounts" && args.empty()) {
    std::string error;
    std::vector<Mount> mounts = scanMounts(&error);
    if (!error.empty()) return failed(std::move(error));
    daemon.replaceMounts(std::move(mounts));
    return {};
  }
  if (command == "verdict") return verdict(args, daemon);
  return failed("unknown command \"" + std::string(trimmed(line)) + "\"; try help");
}

}  // namespace lumo::refdaemon
