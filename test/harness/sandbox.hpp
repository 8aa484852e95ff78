// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace testing_sandbox
{

/* Creates a fresh sandbox root from a board in a new temporary folder and
 * returns its path; aborts the test program if that fails. */
std::string create(const std::string& board = "");

/* The whole content of a file, or "<missing>". */
std::string readFile(const std::string& path);

/* Replaces a file's content, creating its folders. */
void writeFile(const std::string& path, const std::string& content);

} // namespace testing_sandbox
