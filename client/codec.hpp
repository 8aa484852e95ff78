// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "description.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

/* Requests built from command-line arguments and answers decoded into named
 * values, both driven by a command's description alone. */
namespace oemclient
{

/* An argument that does not fit its field; nothing has been sent. */
struct ArgumentError : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

struct Request
{
    std::vector<uint8_t> data;
    /* The numbers sent, by field name: what answer layouts depend on. */
    std::map<std::string, uint64_t> numbers;
};

/* Arguments fill the request fields in order; NAME=VALUE names one. A
 * number is decimal, 0x-prefixed hexadecimal or one of the field's labels;
 * bytes are hexadecimal digits, optionally separated by ':', '-' or '.'; a
 * record is one argument of comma-separated values. */
Request encodeRequest(const Command& command,
                      const std::vector<std::string>& arguments);

/* One decoded field. */
struct Value
{
    const Field* field = nullptr;
    uint64_t number = 0;
    std::string text;
    std::vector<uint8_t> bytes;
    std::vector<std::vector<Value>> records;
};

struct Decoded
{
    const Layout* layout = nullptr; // null: the answer fits no layout
    std::vector<Value> values;      // constants and reserved bytes left out
    std::string failure;            // set when the answer means failure
    std::string note;
};

Decoded decodeAnswer(const Command& command, const Request& request,
                     const std::vector<uint8_t>& answer);

/* The label of a number, or an empty string. */
std::string label(const Field& field, uint64_t number);

/* The decoded values as "name: value" lines, and as a JSON object. */
std::string formatText(const std::vector<Value>& values);
nlohmann::ordered_json formatJson(const std::vector<Value>& values);

/* Bytes as ipmitool raw prints them: " 00 01", sixteen to a line. */
std::string ipmitoolBytes(const std::vector<uint8_t>& bytes);
std::string hexString(const std::vector<uint8_t>& bytes);

} // namespace oemclient
