// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "plugin.hpp"

#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

/* Puts files back as they were (or removes them where there were none) when
 * a test ends. */
class KeepFiles
{
  public:
    KeepFiles(std::initializer_list<std::string> paths)
    {
        for (const auto& path : paths)
        {
            kept.emplace_back(path, readFile(path));
        }
    }
    ~KeepFiles()
    {
        for (const auto& [path, content] : kept)
        {
            if (content == "<missing>")
            {
                std::error_code ignored;
                std::filesystem::remove_all(path, ignored);
            }
            else
            {
                writeFile(path, content);
            }
        }
    }
    KeepFiles(const KeepFiles&) = delete;
    KeepFiles& operator=(const KeepFiles&) = delete;

  private:
    std::vector<std::pair<std::string, std::string>> kept;
};

/* Writes a file, or removes it when content is "<missing>". */
inline void putFile(const std::string& path, const std::string& content)
{
    if (content == "<missing>")
    {
        unlink(path.c_str());
    }
    else
    {
        writeFile(path, content);
    }
}

using Bytes = std::vector<uint8_t>;

inline Bytes bytesOf(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}
