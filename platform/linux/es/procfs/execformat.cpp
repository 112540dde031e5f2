#include "es/procfs/execformat.h"

#include <elf.h>
#include <limits.h>
#include <unistd.h>

#include <cstring>
#include <optional>

namespace endpointsecurity::linux_es {

namespace {

// The ELF header, its program headers and, as linkers lay files out, the
// loader's name usually sit in the first kilobyte.
constexpr size_t kHead = 1024;
// More program headers than any linker writes: not looked through.
constexpr unsigned kMaxProgramHeaders = 256;

struct Head {
  unsigned char bytes[kHead];
  size_t length = 0;
};

bool readAt(int fd, uint64_t offset, void* out, size_t length, const Head& head) {
  if (offset <= head.length && length <= head.length - offset) {
    std::memcpy(out, head.bytes + offset, length);
    return true;
  }
  return pread(fd, out, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
}

constexpr unsigned char kNativeData = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ELFDATA2LSB
                                                                                 : ELFDATA2MSB;

template <typename Ehdr, typename Phdr>
std::optional<std::string> interpreterOf(int fd, const Head& head) {
  Ehdr header;
  if (!readAt(fd, 0, &header, sizeof header, head)) return std::nullopt;
  if (header.e_phentsize != sizeof(Phdr) || header.e_phnum > kMaxProgramHeaders) {
    return std::nullopt;
  }
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Phdr program;
    if (!readAt(fd, header.e_phoff + uint64_t{i} * sizeof program, &program, sizeof program,
                head)) {
      return std::nullopt;
    }
    if (program.p_type != PT_INTERP) continue;
    if (program.p_filesz == 0 || program.p_filesz > PATH_MAX) return std::nullopt;
    std::string name(program.p_filesz, '\0');
    if (!readAt(fd, program.p_offset, name.data(), name.size(), head)) return std::nullopt;
    name.resize(strnlen(name.c_str(), name.size()));
    return name;
  }
  return std::string();
}

// Nothing when fd is no ELF of this machine's byte order, or unreadable.
std::optional<std::string> interpreterIn(int fd, const Head& head) {
  if (head.length < EI_NIDENT || std::memcmp(head.bytes, ELFMAG, SELFMAG) != 0 ||
      head.bytes[EI_DATA] != kNativeData) {
    return std::nullopt;
  }
  switch (head.bytes[EI_CLASS]) {
    case ELFCLASS64: return interpreterOf<Elf64_Ehdr, Elf64_Phdr>(fd, head);
    case ELFCLASS32: return interpreterOf<Elf32_Ehdr, Elf32_Phdr>(fd, head);
    default: return std::nullopt;
  }
}

Head readHead(int fd) {
  Head head;
  const ssize_t n = pread(fd, head.bytes, sizeof head.bytes, 0);
  head.length = n > 0 ? static_cast<size_t>(n) : 0;
  return head;
}

}  // namespace

std::string elfInterpreter(int fd) { return interpreterIn(fd, readHead(fd)).value_or(""); }

ExecFormat execFormatOf(int fd, const std::string& knownLoader) {
  const Head head = readHead(fd);
  if (head.length >= 2 && head.bytes[0] == '#' && head.bytes[1] == '!') {
    return ExecFormat::kNeedsInterpreter;
  }
  const std::optional<std::string> loader = interpreterIn(fd, head);
  if (loader && (loader->empty() || (!knownLoader.empty() && *loader == knownLoader))) {
    return ExecFormat::kSelfContained;
  }
  return ExecFormat::kNeedsInterpreter;
}

}  // namespace endpointsecurity::linux_es
