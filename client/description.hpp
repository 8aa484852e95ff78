// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/* The wire description of the OEM command set (client/commands.json), read
 * into plain structures. It is the only place the client learns a command's
 * layout from: the encoder, the decoder, the listing, the help and the
 * reference all walk these structures. */
namespace oemclient
{

enum class Type
{
    u8,
    u16le,
    u16be,
    u24be,
    u32le,
    u32be,
    constant, // fixed bytes, never an argument, never shown
    reserved, // bytes that carry nothing; zeros in a request
    text,     // fixed width, zero-padded; without a size: the rest
    cstring,  // text and a zero byte (requests)
    hextext,  // hexadecimal digits sent as text and a zero byte
    bytes,    // fixed size, or the rest
    uuid,     // 16 bytes shown as a UUID in byte order
    flags,    // one byte of named bits
    records,  // repeated records up to the end
};

/* "when": the field or layout applies only while an earlier request field
 * holds one of these values. */
struct Condition
{
    std::string field;
    std::vector<uint64_t> values;
};

struct Field
{
    std::string name;
    Type type = Type::u8;
    std::string about;
    std::string unit;
    size_t size = 0; // fixed width; 0 with text, bytes, records: the rest
    std::vector<uint8_t> constant;
    std::map<uint64_t, std::string> values; // labels of a number
    std::map<unsigned, std::string> bits;   // labels of flags
    std::optional<uint64_t> min;            // number range, or length
    std::optional<uint64_t> max;            // bounds of text and bytes
    std::optional<std::string> defaultArgument;
    std::string charset; // digits, name, address: allowed characters
    std::vector<Field> record;
    std::optional<Condition> when;
    bool optional = false;
    bool hex = false;    // numbers shown in hexadecimal
    bool status = false; // the outcome of the command: not ok is a failure
    std::vector<uint64_t> ok{0};

    bool isNumber() const;
    bool takesArgument() const; // not constant, not reserved
    size_t width() const;       // bytes on the wire; 0: variable
    size_t recordWidth() const;
    uint64_t maxNumber() const;
};

/* One form an answer can take. A layout fits an answer when its condition
 * holds for the request, its match bytes (if any) equal the answer, and
 * its fields account for every byte. */
struct Layout
{
    std::optional<Condition> when;
    std::optional<std::vector<uint8_t>> match;
    std::string failure; // the answer means the command failed
    std::string note;    // the answer means this, and is not a failure
    std::vector<Field> fields;

    size_t minimumLength() const;
    bool variable() const;
};

struct Command
{
    std::string name;
    std::string group;
    std::string effect;
    std::string notes;
    uint8_t netfn = 0;
    uint8_t cmd = 0;
    std::vector<Field> request;
    std::vector<Layout> answer;
    std::map<uint8_t, std::string> codes;
    std::vector<std::vector<std::string>> examples;
};

struct Group
{
    std::string id;
    std::string title;
    std::string about;
};

struct Description
{
    std::string about;
    std::vector<Group> groups;
    std::vector<Command> commands;
    std::map<uint8_t, std::string> completionCodes;

    const Command* find(std::string_view name) const;
    /* The command's meaning of a completion code, else its generic name. */
    std::string codeMeaning(const Command& command, uint8_t code) const;
};

/* A description that cannot be read or does not hold together. */
struct DescriptionError : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

/* Reads a description from JSON text and checks it: unknown keys and types,
 * fixed sizes that do not add up, duplicate names, conditions on fields
 * that do not come first. */
Description parseDescription(std::string_view json);

/* The description built into the program. */
const Description& builtinDescription();

std::string typeName(const Field& field);

} // namespace oemclient
