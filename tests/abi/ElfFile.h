#pragma once

#include <link.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

std::vector<char> bytesOfFile(const std::string& path);

/// The members of an archive by name, without the tables.
std::map<std::string, std::vector<char>> membersOfArchive(const std::string& path);

/// The parts of a shared library, or of an object file, of this program's own width that say how it
/// is loaded and linked.
class ElfFile {
 public:
  struct Symbol {
    std::string name;
    /// "@@VERSION" for a default version, "@VERSION" for a hidden one, empty for none.
    std::string version;
    bool defined;
    bool absolute;
  };

  explicit ElfFile(std::vector<char> bytes);

  bool isElf() const;
  const std::vector<Symbol>& symbols() const { return symbols_; }
  /// The names of the version definitions; the first is that of the file.
  const std::vector<std::string>& versions() const { return versions_; }
  /// The values of a dynamic tag.
  std::vector<ElfW(Addr)> values(ElfW(Sxword) tag) const;
  /// The texts that a dynamic tag names.
  std::vector<std::string> texts(ElfW(Sxword) tag) const;
  /// The program headers of a type.
  std::vector<ElfW(Phdr)> segments(ElfW(Word) type) const;
  /// Pointers in the sections of a type, such as SHT_INIT_ARRAY.
  size_t pointersIn(ElfW(Word) type) const;

 private:
  template <typename T>
  const T* at(size_t offset) const;
  template <typename T>
  std::vector<T> tableOf(ElfW(Word) type) const;
  std::vector<ElfW(Shdr)> sections() const;
  std::vector<ElfW(Shdr)> sections(ElfW(Word) type) const;
  const char* text(size_t offset) const;
  void readVersions();
  void readSymbols();

  std::vector<char> bytes_;
  size_t strings_ = 0;
  std::vector<std::string> versionOf_;
  std::vector<std::string> versions_;
  std::vector<Symbol> symbols_;
};
