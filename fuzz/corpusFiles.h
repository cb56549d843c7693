/*
 * corpusFiles.h - the seed corpus of a fuzz target as byte strings, for the
 * tests that replay it in every build (name: the folder under fuzz/corpus/).
 */
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace velfuzz {

inline std::vector<std::vector<std::uint8_t>> corpusFiles(const std::string &sourceDir, const std::string &name)
{
    std::vector<std::vector<std::uint8_t>> files;
    for (const auto &entry : std::filesystem::directory_iterator(sourceDir + "/fuzz/corpus/" + name)) {
        std::ifstream in(entry.path(), std::ios::binary);
        files.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    return files;
}

} // namespace velfuzz
