// duplicates - finds files with the same content below a directory, measured with arm.hpp.
//
//     duplicates DIRECTORY
//
// The search is one transaction. Reading and hashing a file is a child of it, done by a few
// threads; each carries the number of its bytes as a metric, and one whose file cannot be read is
// left by an exception and so has failed. Files of equal hash are compared byte for byte, in
// transactions of a third class. Without an engine the program does the same work unmeasured.

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "arm.hpp"

namespace {

namespace fs = std::filesystem;

constexpr unsigned WORKERS = 4;

struct File {
  fs::path path;
  std::uint64_t size = 0;
  std::uint64_t hash = 0;
  bool readable = false;
};

/// What is measured.
struct Classes {
  explicit Classes(const arm::application& of)
      : searching(of, "search a tree"),
        hashing(of, "hash a file", "FNV-1a", bytes()),
        comparing(of, "compare two files") {}

  static arm::metric_descriptions bytes() {
    return arm::metric_descriptions().describe<1, arm::metric_type::counter64>("bytes read");
  }

  arm::transaction_class searching;
  arm::transaction_class hashing;
  arm::transaction_class comparing;
};

std::vector<File> filesBelow(const fs::path& directory) {
  std::vector<File> files;
  const auto options = fs::directory_options::skip_permission_denied;
  for (const auto& entry : fs::recursive_directory_iterator(directory, options)) {
    if (entry.is_regular_file() && !entry.is_symlink()) files.push_back({entry.path()});
  }
  return files;
}

/// Reads a file to its end; throws when that is not possible.
void hash(File* file) {
  std::ifstream input(file->path, std::ios::binary);
  std::uint64_t value = 14695981039346656037U;
  char block[65536];
  while (input.read(block, sizeof block) || input.gcount() > 0) {
    for (std::streamsize i = 0; i < input.gcount(); ++i) {
      value = (value ^ static_cast<unsigned char>(block[i])) * 1099511628211U;
    }
    file->size += static_cast<std::uint64_t>(input.gcount());
  }
  if (!input.eof()) throw std::runtime_error("cannot read " + file->path.string());
  file->hash = value;
  file->readable = true;
}

void hashMeasured(const Classes& classes, const arm::correlator& parent, File* file) {
  arm::transaction measured(classes.hashing, parent);
  hash(file);
  arm::data_block metrics;
  metrics.counter64<1>(static_cast<std::int64_t>(file->size));
  (void)measured.stop(arm::status::good, metrics);
}

/// Hashes all files; what cannot be read is named and left out.
void hashAll(const Classes& classes, const arm::correlator& parent, std::vector<File>* files) {
  std::atomic<std::size_t> next{0};
  const auto work = [&] {
    for (std::size_t i = next++; i < files->size(); i = next++) {
      try {
        hashMeasured(classes, parent, &(*files)[i]);
      } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "duplicates: %s\n", error.what());
      }
    }
  };
  std::vector<std::thread> workers;
  for (unsigned i = 0; i < WORKERS; ++i) workers.emplace_back(work);
  for (std::thread& worker : workers) worker.join();
}

bool sameContent(const fs::path& a, const fs::path& b) {
  std::ifstream first(a, std::ios::binary);
  std::ifstream second(b, std::ios::binary);
  return std::equal(std::istreambuf_iterator<char>(first), std::istreambuf_iterator<char>(),
                    std::istreambuf_iterator<char>(second), std::istreambuf_iterator<char>());
}

/// Prints each file that has the content of an earlier one.  Returns their number.
unsigned printDuplicates(const Classes& classes, const arm::correlator& parent,
                         const std::vector<File>& files) {
  std::map<std::tuple<std::uint64_t, std::uint64_t>, std::vector<const File*>> groups;
  for (const File& file : files) {
    if (file.readable && file.size > 0) groups[{file.size, file.hash}].push_back(&file);
  }
  unsigned count = 0;
  for (const auto& group : groups) {
    for (std::size_t i = 1; i < group.second.size(); ++i) {
      const File& first = *group.second[0];
      const File& other = *group.second[i];
      arm::transaction measured(classes.comparing, parent);
      if (!sameContent(first.path, other.path)) {
        measured.fail();
        continue;
      }
      (void)std::printf("%s = %s\n", first.path.c_str(), other.path.c_str());
      ++count;
    }
  }
  return count;
}

void search(const Classes& classes, const fs::path& directory) {
  arm::data_block block;
  arm::transaction whole(classes.searching, block.child_of_environment().want_correlator());
  const arm::correlator parent = block.correlator().value_or(arm::correlator());
  std::vector<File> files = filesBelow(directory);
  std::sort(files.begin(), files.end(),
            [](const File& a, const File& b) { return a.path < b.path; });
  hashAll(classes, parent, &files);
  const unsigned duplicates = printDuplicates(classes, parent, files);
  (void)std::printf("%zu files, %u duplicates\n", files.size(), duplicates);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    (void)std::fputs("usage: duplicates DIRECTORY\n", stderr);
    return 2;
  }
  const arm::application application("duplicates");
  try {
    search(Classes(application), argv[1]);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "duplicates: %s\n", error.what());
    return 1;
  }
  if (!application) (void)std::fputs("duplicates: this was not measured\n", stderr);
  return 0;
}
