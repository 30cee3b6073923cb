// Runs a fuzz target without libFuzzer: on every file of the folders and files that are named, and
// on mutations of them, always the same ones, for about a second at most. To reproduce a crash,
// name its file alone.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr int kMutations = 4000;
constexpr size_t kMaxBytes = 4096;
constexpr auto kPatience = std::chrono::seconds(1);

void RunTarget(const std::string& input) {
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
}

std::vector<std::string> FilesAt(const std::string& path) {
  if (!std::filesystem::is_directory(path)) return {path};
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());  // The folder's own order differs between machines.
  return files;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The engine's output is the same everywhere, unlike that of the standard's distributions.
size_t Below(size_t limit, std::mt19937& random) {
  return limit == 0 ? 0 : random() % limit;
}

void Mutate(const std::vector<std::string>& seeds, std::mt19937& random, std::string& input) {
  const size_t place = Below(input.size() + 1, random);
  const size_t length = Below(input.size() - place + 1, random);
  switch (random() % 5) {
    case 0:
      if (place < input.size()) input[place] ^= static_cast<char>(1 << (random() % 8));
      break;
    case 1:
      if (place < input.size()) input[place] = static_cast<char>(random());
      break;
    case 2:
      input.erase(place, length);
      break;
    case 3:
      input.insert(place, input.substr(Below(place + 1, random), length));
      break;
    default: {
      const std::string& other = seeds[Below(seeds.size(), random)];
      input.replace(place, length, other, Below(other.size() + 1, random), std::string::npos);
    }
  }
  input.resize(std::min(input.size(), kMaxBytes));
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> seeds;
  bool has_folder = false;
  for (int i = 1; i < argc; ++i) {
    has_folder = has_folder || std::filesystem::is_directory(argv[i]);
    for (const std::string& path : FilesAt(argv[i])) {
      seeds.push_back(ReadFile(path));
      RunTarget(seeds.back());
    }
  }
  if (seeds.empty()) {
    std::fprintf(stderr, "no input\n");
    return 1;
  }
  int mutations = 0;
  std::mt19937 random(1);
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (has_folder && mutations < kMutations && std::chrono::steady_clock::now() < end) {
    std::string input = seeds[Below(seeds.size(), random)];
    for (size_t rounds = 1 + Below(4, random); rounds > 0; --rounds) Mutate(seeds, random, input);
    RunTarget(input);
    ++mutations;
  }
  std::printf("%zu inputs and %d mutations\n", seeds.size(), mutations);
}
