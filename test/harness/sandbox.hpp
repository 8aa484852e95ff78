// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace testing_sandbox
{

/* Creates a fresh sandbox root from a board in a new temporary folder and
 * returns its path; aborts the test program if that fails. */
std::string create(const std::string& board = "");

/* Starts the simulated D-Bus of a sandbox root (sim/dbus/start-sim-bus)
 * from outside it and returns the bus address once every service is there;
 * aborts the test program if that fails. Its processes end with the test's
 * PID namespace. */
std::string startBus(const std::string& root);

/* The whole content of a file, or "<missing>". */
std::string readFile(const std::string& path);

/* Replaces a file's content, creating its folders. */
void writeFile(const std::string& path, const std::string& content);

} // namespace testing_sandbox
