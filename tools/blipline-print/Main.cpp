#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "Blipline/RingReader.h"
#include "program/Program.h"

namespace {

constexpr std::string_view kUsage =
    "usage: bastil-bliptrace FILE|DIRECTORY...\n"
    "       bastil-bliptrace --version\n"
    "Prints the records of ring trace files in the order of time. Of a directory it takes the "
    "files\n"
    "that end in \".blip\". The files may belong to a process that runs.\n"
    "Exit status: 0 everything was read, 1 a file or a part of one was not, 2 wrong use.\n";

std::vector<std::string> filesOf(const std::string& argument) {
  std::error_code error;
  if (!std::filesystem::is_directory(argument, error)) return {argument};
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(argument, error))
    if (entry.path().extension() == ".blip") files.push_back(entry.path());
  if (error) fmt::print(stderr, "bastil-bliptrace: {}: {}\n", argument, error.message());
  std::ranges::sort(files);
  return files;
}

/// Reads a file. False if it is unreadable, completely or in part.
bool fileRead(const std::string& path, std::vector<Blipline::RingFile>& files) {
  try {
    files.emplace_back(path);
  } catch (const Blipline::RingFileException& exception) {
    fmt::print(stderr, "bastil-bliptrace: {}\n", exception.what());
    return false;
  }
  for (const std::string& problem : files.back().problems())
    fmt::print(stderr, "bastil-bliptrace: {}: {}\n", path, problem);
  return files.back().problems().empty();
}

bool print(const std::vector<std::string>& paths) {
  bool whole = true;
  std::vector<Blipline::RingFile> files;
  for (const std::string& path : paths) whole &= fileRead(path, files);
  for (const Blipline::RingMessage& message : Blipline::ringMessages(files)) {
    const std::string line = Blipline::ringLine(message) + '\n';
    if (std::fwrite(line.data(), 1, line.size(), stdout) != line.size()) return false;
  }
  return std::fflush(stdout) == 0 && whole;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.empty() || arguments[0] == "--help" || arguments[0] == "-h") {
    std::fwrite(kUsage.data(), 1, kUsage.size(), arguments.empty() ? stderr : stdout);
    return arguments.empty() ? 2 : 0;
  }
  if (arguments[0] == "--version") {
    return Program::print(Program::versionOf("bastil-bliptrace") + '\n') ? 0 : 1;
  }
  std::vector<std::string> paths;
  for (const std::string& argument : arguments) {
    const std::vector<std::string> found = filesOf(argument);
    if (found.empty()) fmt::print(stderr, "bastil-bliptrace: {} holds no .blip file\n", argument);
    paths.insert(paths.end(), found.begin(), found.end());
  }
  return print(paths) && !paths.empty() ? 0 : 1;
}
