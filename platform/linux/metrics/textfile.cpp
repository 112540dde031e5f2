#include "metrics/textfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

namespace tarvex::itx::rtn::linux_platform {

namespace {

std::string escapedHelp(const std::string& help) {
  std::string out;
  for (const char c : help) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

bool endsWith(const std::string& text, const char* suffix) {
  const size_t n = std::strlen(suffix);
  return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

std::string failure(const char* what, const std::string& path) {
  return std::string(what) + " " + path + ": " + std::strerror(errno);
}

}  // namespace

std::string prometheusText(const std::vector<CounterReading>& readings) {
  std::vector<std::string> order;
  std::map<std::string, std::vector<const CounterReading*>> byName;
  for (const CounterReading& r : readings) {
    auto& samples = byName[r.name];
    if (samples.empty()) order.push_back(r.name);
    samples.push_back(&r);
  }
  std::string out;
  for (const std::string& name : order) {
    const auto& samples = byName[name];
    out += "# HELP " + name + " " + escapedHelp(samples.front()->help) + "\n";
    out += "# TYPE " + name + (endsWith(name, "_total") ? " counter\n" : " gauge\n");
    for (const CounterReading* r : samples) {
      out += name;
      if (!r->labels.empty()) out += "{" + r->labels + "}";
      out += " " + std::to_string(r->value) + "\n";
    }
  }
  return out;
}

bool replaceFile(const std::string& path, const std::string& text, std::string* error) {
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  const std::string temp = dir + "." + base + ".tmp";
  const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    *error = failure("cannot create", temp);
    return false;
  }
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = failure("cannot write", temp);
      ::close(fd);
      unlink(temp.c_str());
      return false;
    }
    done += static_cast<size_t>(n);
  }
  // Permissions as asked, whatever the umask made of them: the exporter
  // runs as its own user.
  fchmod(fd, 0644);
  ::close(fd);
  if (std::rename(temp.c_str(), path.c_str()) != 0) {
    *error = failure("cannot rename onto", path);
    unlink(temp.c_str());
    return false;
  }
  return true;
}

}  // namespace tarvex::itx::rtn::linux_platform
