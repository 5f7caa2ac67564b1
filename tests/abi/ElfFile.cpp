#include "ElfFile.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

std::vector<char> bytesOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::vector<char>(std::istreambuf_iterator<char>(file), {});
}

std::map<std::string, std::vector<char>> membersOfArchive(const std::string& path) {
  const std::vector<char> archive = bytesOfFile(path);
  const std::string all(archive.begin(), archive.end());
  std::map<std::string, std::vector<char>> members;
  std::string long_names;
  // Header of a member: name of 16 characters, the size in decimal digits at 48, 60 in all.
  for (size_t at = 8; at + 60 <= all.size();) {
    std::string name = all.substr(at, 16);
    const size_t size = std::stoul(all.substr(at + 48, 10));
    const size_t content = at + 60;
    if (name[0] == '/' && name[1] >= '0' && name[1] <= '9') {
      name = long_names.substr(std::stoul(name.substr(1)));
    }
    if (name.substr(0, 2) == "//") {
      long_names = all.substr(content, size);
    } else if (name[0] != '/') {
      members[name.substr(0, name.find('/'))].assign(
          archive.begin() + static_cast<long>(content),
          archive.begin() + static_cast<long>(content + size));
    }
    at = content + size + size % 2;
  }
  return members;
}

ElfFile::ElfFile(std::vector<char> bytes) : bytes_(std::move(bytes)) {
  if (!isElf()) return;
  for (const ElfW(Shdr) & dynamic : sections(SHT_DYNAMIC)) {
    strings_ = sections()[dynamic.sh_link].sh_offset;
  }
  readVersions();
  readSymbols();
}

bool ElfFile::isElf() const {
  constexpr unsigned char WIDTH = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
  return bytes_.size() > sizeof(ElfW(Ehdr)) && std::memcmp(bytes_.data(), ELFMAG, SELFMAG) == 0 &&
         bytes_[EI_CLASS] == WIDTH;
}

template <typename T>
const T* ElfFile::at(size_t offset) const {
  return reinterpret_cast<const T*>(bytes_.data() + offset);
}

const char* ElfFile::text(size_t offset) const {
  return bytes_.data() + strings_ + offset;
}

std::vector<ElfW(Shdr)> ElfFile::sections() const {
  const auto* header = at<ElfW(Ehdr)>(0);
  const auto* first = at<ElfW(Shdr)>(header->e_shoff);
  return {first, first + header->e_shnum};
}

std::vector<ElfW(Shdr)> ElfFile::sections(ElfW(Word) type) const {
  std::vector<ElfW(Shdr)> found;
  for (const ElfW(Shdr) & section : sections()) {
    if (section.sh_type == type) found.push_back(section);
  }
  return found;
}

template <typename T>
std::vector<T> ElfFile::tableOf(ElfW(Word) type) const {
  std::vector<T> table;
  for (const ElfW(Shdr) & section : sections(type)) {
    const auto* first = at<T>(section.sh_offset);
    table.insert(table.end(), first, first + section.sh_size / sizeof(T));
  }
  return table;
}

void ElfFile::readVersions() {
  for (const ElfW(Shdr) & section : sections(SHT_GNU_verdef)) {
    size_t offset = section.sh_offset;
    for (size_t i = 0; i < section.sh_info; ++i) {
      const auto* definition = at<ElfW(Verdef)>(offset);
      const auto* name = at<ElfW(Verdaux)>(offset + definition->vd_aux);
      versions_.push_back(text(name->vda_name));
      versionOf_.resize(definition->vd_ndx + 1U);
      versionOf_[definition->vd_ndx] = versions_.back();
      offset += definition->vd_next;
    }
  }
}

void ElfFile::readSymbols() {
  constexpr ElfW(Half) HIDDEN = 0x8000;
  const std::vector<ElfW(Sym)> table = tableOf<ElfW(Sym)>(SHT_DYNSYM);
  const std::vector<ElfW(Half)> versions = tableOf<ElfW(Half)>(SHT_GNU_versym);
  for (size_t i = 1; i < table.size(); ++i) {
    Symbol symbol = {text(table[i].st_name), "", table[i].st_shndx != SHN_UNDEF,
                     table[i].st_shndx == SHN_ABS};
    const ElfW(Half) version = i < versions.size() ? versions[i] : ElfW(Half){0};
    const size_t index = version & 0x7FFFU;
    if (symbol.defined && index > 1 && index < versionOf_.size()) {
      symbol.version = ((version & HIDDEN) != 0 ? "@" : "@@") + versionOf_[index];
    }
    symbols_.push_back(symbol);
  }
}

std::vector<ElfW(Addr)> ElfFile::values(ElfW(Sxword) tag) const {
  std::vector<ElfW(Addr)> found;
  for (const ElfW(Dyn) & entry : tableOf<ElfW(Dyn)>(SHT_DYNAMIC)) {
    if (entry.d_tag == tag) found.push_back(entry.d_un.d_val);
  }
  return found;
}

std::vector<std::string> ElfFile::texts(ElfW(Sxword) tag) const {
  std::vector<std::string> found;
  for (const ElfW(Addr) value : values(tag)) found.push_back(text(value));
  return found;
}

std::vector<ElfW(Phdr)> ElfFile::segments(ElfW(Word) type) const {
  const auto* header = at<ElfW(Ehdr)>(0);
  std::vector<ElfW(Phdr)> found;
  for (size_t i = 0; i < header->e_phnum; ++i) {
    const auto* segment = at<ElfW(Phdr)>(header->e_phoff + i * sizeof(ElfW(Phdr)));
    if (segment->p_type == type) found.push_back(*segment);
  }
  return found;
}

size_t ElfFile::pointersIn(ElfW(Word) type) const {
  return tableOf<ElfW(Addr)>(type).size();
}
