// SPDX-License-Identifier: Apache-2.0
#include "busfile.hpp"

#include <algorithm>
#include <cerrno>
#include <string>

namespace i2csim
{

namespace
{

constexpr std::uint8_t unsetByte = 0xff; // what an idle bus reads as
constexpr unsigned maxAddress = 0x7f;

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
    {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f')
    {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F')
    {
        return c - 'A' + 10;
    }
    return -1;
}

// Hex with an optional 0x; the bound is checked per digit so that long
// tokens cannot overflow.
std::optional<unsigned> parseHex(std::string_view s, unsigned max)
{
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X'))
    {
        s.remove_prefix(2);
    }
    if (s.empty())
    {
        return std::nullopt;
    }
    unsigned value = 0;
    for (char c : s)
    {
        int d = hexDigit(c);
        if (d < 0)
        {
            return std::nullopt;
        }
        value = value * 16 + static_cast<unsigned>(d);
        if (value > max)
        {
            return std::nullopt;
        }
    }
    return value;
}

std::optional<unsigned> parseDecimal(std::string_view s, unsigned max)
{
    if (s.empty())
    {
        return std::nullopt;
    }
    unsigned value = 0;
    for (char c : s)
    {
        if (c < '0' || c > '9')
        {
            return std::nullopt;
        }
        value = value * 10 + static_cast<unsigned>(c - '0');
        if (value > max)
        {
            return std::nullopt;
        }
    }
    return value;
}

const char hexChars[] = "0123456789abcdef";

void appendHexByte(std::string& out, std::uint8_t b)
{
    out += hexChars[b >> 4];
    out += hexChars[b & 0x0f];
}

std::string hexNumber(std::uint8_t b)
{
    std::string s = "0x";
    appendHexByte(s, b);
    return s;
}

// Error messages quote the input; keep what reaches a terminal printable
// and short whatever the file holds.
std::string quoted(std::string_view s)
{
    constexpr std::size_t maxShown = 24;
    std::string out = "'";
    for (std::size_t i = 0; i < s.size() && i < maxShown; ++i)
    {
        char c = s[i];
        out += (c >= 0x20 && c < 0x7f) ? c : '?';
    }
    if (s.size() > maxShown)
    {
        out += "...";
    }
    out += "'";
    return out;
}

struct Token
{
    std::string text;
    bool quoted = false;
};

// Splits a line into tokens. A quoted token keeps blanks and '#', and takes
// \xHH, \\ and \" escapes.
std::string tokenize(std::string_view line, std::vector<Token>& tokens)
{
    std::size_t i = 0;
    while (i < line.size())
    {
        char c = line[i];
        if (isBlank(c))
        {
            ++i;
            continue;
        }
        if (c == '#')
        {
            break;
        }
        Token tok;
        if (c != '"')
        {
            std::size_t start = i;
            while (i < line.size() && !isBlank(line[i]) && line[i] != '#')
            {
                ++i;
            }
            tok.text = line.substr(start, i - start);
            tokens.push_back(std::move(tok));
            continue;
        }

        tok.quoted = true;
        ++i;
        bool closed = false;
        while (i < line.size() && !closed)
        {
            char s = line[i++];
            if (s == '"')
            {
                closed = true;
            }
            else if (s != '\\')
            {
                tok.text += s;
            }
            else if (i >= line.size())
            {
                break;
            }
            else if (line[i] == '\\' || line[i] == '"')
            {
                tok.text += line[i++];
            }
            else if (line[i] == 'x' && i + 2 < line.size() &&
                     hexDigit(line[i + 1]) >= 0 && hexDigit(line[i + 2]) >= 0)
            {
                tok.text += static_cast<char>(hexDigit(line[i + 1]) * 16 +
                                              hexDigit(line[i + 2]));
                i += 3;
            }
            else
            {
                return "bad escape in string (use \\xHH, \\\\ or \\\")";
            }
        }
        if (!closed)
        {
            return "string without closing quote";
        }
        if (i < line.size() && !isBlank(line[i]) && line[i] != '#')
        {
            return "a blank must follow the closing quote";
        }
        tokens.push_back(std::move(tok));
    }
    return {};
}

class Parser
{
  public:
    std::string line(std::string_view text)
    {
        std::vector<Token> tokens;
        if (std::string error = tokenize(text, tokens); !error.empty())
        {
            return error;
        }
        if (tokens.empty())
        {
            return {};
        }
        const Token& keyword = tokens.front();
        std::span<const Token> args(tokens.begin() + 1, tokens.end());
        if (!keyword.quoted && keyword.text == "device")
        {
            return device(args);
        }
        if (!keyword.quoted &&
            (keyword.text == "reg" || keyword.text == "block"))
        {
            return reg(args, keyword.text == "block");
        }
        return "unknown keyword " + quoted(keyword.text) +
               " (expected device, reg or block)";
    }

    Bus bus;

  private:
    std::string device(std::span<const Token> args)
    {
        if (args.empty() || args[0].quoted)
        {
            return "device needs an address";
        }
        auto addr = parseHex(args[0].text, maxAddress);
        if (!addr)
        {
            return "bad device address " + quoted(args[0].text) +
                   " (7-bit, hex: 00..7f)";
        }
        auto [it, added] =
            bus.devices.try_emplace(static_cast<std::uint8_t>(*addr));
        if (!added)
        {
            return "device " + hexNumber(it->first) + " described twice";
        }
        current = &it->second;

        bool seenFail = false;
        bool seenPtr = false;
        for (const Token& tok : args.subspan(1))
        {
            std::string_view t = tok.text;
            std::string_view name = t.substr(0, t.find('='));
            std::string_view value =
                name.size() < t.size() ? t.substr(name.size() + 1) : "";
            bool repeated = false;
            bool ok = !tok.quoted;
            if (ok && t == "noanswer")
            {
                repeated = current->noAnswer;
                current->noAnswer = true;
            }
            else if (ok && t == "bound")
            {
                repeated = current->bound;
                current->bound = true;
            }
            else if (ok && name == "fail")
            {
                auto n = parseDecimal(value, maxFailCount);
                ok = n.has_value();
                repeated = seenFail;
                seenFail = true;
                current->failCount = n.value_or(0);
            }
            else if (ok && name == "maxread")
            {
                auto n = parseDecimal(value, maxMessageLength);
                ok = n.has_value();
                repeated = current->maxRead.has_value();
                current->maxRead = n;
            }
            else if (ok && name == "ptr")
            {
                auto n = parseHex(value, 0xff);
                ok = n.has_value();
                repeated = seenPtr;
                seenPtr = true;
                current->pointer = static_cast<std::uint8_t>(n.value_or(0));
            }
            else
            {
                ok = false;
            }
            if (!ok)
            {
                return "bad device attribute " + quoted(t) +
                       " (noanswer, bound, fail=N, maxread=N, ptr=HH)";
            }
            if (repeated)
            {
                return "device attribute " + quoted(name) + " given twice";
            }
        }
        return {};
    }

    std::string reg(std::span<const Token> args, bool block)
    {
        if (current == nullptr)
        {
            return "register before any device line";
        }
        if (args.empty() || args[0].quoted)
        {
            return "register line needs a register number";
        }
        auto number = parseHex(args[0].text, 0xff);
        if (!number)
        {
            return "bad register number " + quoted(args[0].text) +
                   " (hex: 00..ff)";
        }
        Register r;
        r.block = block;
        for (const Token& tok : args.subspan(1))
        {
            if (tok.quoted)
            {
                r.bytes.insert(r.bytes.end(), tok.text.begin(), tok.text.end());
            }
            else if (auto b = parseHex(tok.text, 0xff))
            {
                r.bytes.push_back(static_cast<std::uint8_t>(*b));
            }
            else
            {
                return "bad value " + quoted(tok.text) +
                       " (a hex byte or a quoted string)";
            }
            if (r.bytes.size() > maxRegisterLength)
            {
                return "register longer than " +
                       std::to_string(maxRegisterLength) + " bytes";
            }
        }
        if (!block && r.bytes.empty())
        {
            return "reg needs a value (use block for an empty register)";
        }
        r.block = block || r.bytes.size() > 1;
        auto [it, added] = current->registers.try_emplace(
            static_cast<std::uint8_t>(*number), std::move(r));
        if (!added)
        {
            return "register " + hexNumber(it->first) + " described twice";
        }
        return {};
    }

    Device* current = nullptr;
};

Device* find(Bus& bus, std::uint16_t addr)
{
    if (addr > maxAddress)
    {
        return nullptr;
    }
    auto it = bus.devices.find(static_cast<std::uint8_t>(addr));
    return it == bus.devices.end() ? nullptr : &it->second;
}

// The device at addr if it acknowledges now. A pending failure is used up
// by the transfer it fails.
Device* answering(Bus& bus, std::uint16_t addr)
{
    Device* dev = find(bus, addr);
    if (dev == nullptr || dev->noAnswer)
    {
        return nullptr;
    }
    if (dev->failCount > 0)
    {
        --dev->failCount;
        return nullptr;
    }
    return dev;
}

// One byte of an auto-increment run; a block register stands for its first
// byte there.
std::uint8_t byteAt(const Device& dev, std::uint8_t reg)
{
    auto it = dev.registers.find(reg);
    if (it == dev.registers.end() || it->second.bytes.empty())
    {
        return unsetByte;
    }
    return it->second.bytes.front();
}

void readAt(const Device& dev, std::uint8_t reg, std::span<std::uint8_t> out)
{
    auto it = dev.registers.find(reg);
    if (it != dev.registers.end() && it->second.block)
    {
        const auto& bytes = it->second.bytes;
        std::size_t n = std::min(bytes.size(), out.size());
        std::copy_n(bytes.begin(), n, out.begin());
        std::fill(out.begin() + static_cast<std::ptrdiff_t>(n), out.end(),
                  unsetByte);
        return;
    }
    std::uint8_t r = reg;
    for (std::uint8_t& b : out)
    {
        b = byteAt(dev, r++);
    }
}

void writeAt(Device& dev, std::uint8_t reg,
             std::span<const std::uint8_t> values)
{
    auto it = dev.registers.find(reg);
    if (it != dev.registers.end() && it->second.block)
    {
        it->second.bytes.assign(values.begin(), values.end());
        return;
    }
    std::uint8_t r = reg;
    for (std::uint8_t v : values)
    {
        Register& target = dev.registers[r++];
        if (target.bytes.empty())
        {
            target.bytes.push_back(v);
        }
        else
        {
            target.bytes.front() = v;
        }
    }
}

bool sameDeviceWriteThenRead(const Message& first, const Message& second)
{
    return !first.read && second.read && first.addr == second.addr;
}

} // namespace

ParseResult parse(std::string_view text)
{
    Parser parser;
    std::size_t lineNumber = 0;
    std::size_t pos = 0;
    while (pos < text.size())
    {
        std::size_t end = std::min(text.find('\n', pos), text.size());
        ++lineNumber;
        std::string error = parser.line(text.substr(pos, end - pos));
        if (!error.empty())
        {
            return {std::nullopt, lineNumber, std::move(error)};
        }
        pos = end + 1;
    }
    return {std::move(parser.bus), 0, {}};
}

std::string serialize(const Bus& bus)
{
    std::string out;
    for (const auto& [addr, dev] : bus.devices)
    {
        if (!out.empty())
        {
            out += '\n';
        }
        out += "device " + hexNumber(addr);
        if (dev.noAnswer)
        {
            out += " noanswer";
        }
        if (dev.bound)
        {
            out += " bound";
        }
        if (dev.failCount > 0)
        {
            out += " fail=" + std::to_string(dev.failCount);
        }
        if (dev.maxRead)
        {
            out += " maxread=" + std::to_string(*dev.maxRead);
        }
        if (dev.pointer != 0)
        {
            out += " ptr=" + hexNumber(dev.pointer);
        }
        out += '\n';
        for (const auto& [number, r] : dev.registers)
        {
            // "reg" with two or more bytes already means a block register;
            // only shorter ones need the keyword.
            bool shortBlock = r.block && r.bytes.size() < 2;
            out += shortBlock ? "block " : "reg ";
            out += hexNumber(number);
            if (r.block)
            {
                for (std::uint8_t b : r.bytes)
                {
                    out += ' ';
                    appendHexByte(out, b);
                }
            }
            else
            {
                out += ' ';
                appendHexByte(out,
                              r.bytes.empty() ? unsetByte : r.bytes.front());
            }
            out += '\n';
        }
    }
    return out;
}

int transfer(Bus& bus, std::span<const Message> msgs)
{
    if (msgs.empty() || msgs.size() > maxMessages)
    {
        return EINVAL;
    }
    for (const Message& m : msgs)
    {
        if (m.data.size() > maxMessageLength)
        {
            return EINVAL;
        }
    }
    for (std::size_t i = 0; i < msgs.size(); ++i)
    {
        const Message& m = msgs[i];
        Device* dev = answering(bus, m.addr);
        if (dev == nullptr)
        {
            return ENXIO;
        }
        if (m.read)
        {
            // A write just before it to the same device selected the
            // register; otherwise the read goes on from the pointer.
            bool selected = i > 0 && sameDeviceWriteThenRead(msgs[i - 1], m) &&
                            !msgs[i - 1].data.empty();
            readAt(*dev, selected ? msgs[i - 1].data.front() : dev->pointer,
                   m.data);
        }
        else if (m.data.size() > 1)
        {
            writeAt(*dev, m.data.front(), m.data.subspan(1));
        }
        else if (m.data.size() == 1 &&
                 (i + 1 == msgs.size() ||
                  !sameDeviceWriteThenRead(m, msgs[i + 1])))
        {
            // Only a register number and no read after it: the device
            // keeps it for later reads. Before a read it is just the
            // selection for that read, so reads leave the file alone.
            dev->pointer = m.data.front();
        }
    }
    return 0;
}

int readRegisters(Bus& bus, std::uint16_t addr, std::uint8_t reg, std::size_t n,
                  std::vector<std::uint8_t>& out)
{
    if (n > maxMessageLength)
    {
        return EINVAL;
    }
    std::uint8_t selection = reg;
    out.assign(n, 0);
    const std::array<Message, 2> msgs{
        Message{addr, false, {&selection, 1}},
        Message{addr, true, {out.data(), out.size()}},
    };
    return transfer(bus, msgs);
}

int writeBytes(Bus& bus, std::uint16_t addr,
               std::span<const std::uint8_t> bytes)
{
    if (bytes.size() > maxMessageLength)
    {
        return EINVAL;
    }
    std::vector<std::uint8_t> copy(bytes.begin(), bytes.end());
    const Message msg{addr, false, {copy.data(), copy.size()}};
    return transfer(bus, {&msg, 1});
}

int checkSlaveAddress(const Bus& bus, unsigned long addr, bool force)
{
    if (addr > maxAddress)
    {
        return EINVAL;
    }
    if (force)
    {
        return 0;
    }
    auto it = bus.devices.find(static_cast<std::uint8_t>(addr));
    return it != bus.devices.end() && it->second.bound ? EBUSY : 0;
}

int smbusTransfer(Bus& bus, std::uint16_t addr, bool read, std::uint8_t command,
                  std::uint32_t size, SmbusData& data)
{
    // Command, count and a full block go out; a count and a full block come
    // back.
    std::array<std::uint8_t, smbusBlockMax + 2> out{};
    std::array<std::uint8_t, smbusBlockMax + 1> in{};
    out[0] = command;

    auto single = [&](bool isRead, std::size_t len) {
        const Message msg{addr, isRead, {isRead ? in.data() : out.data(), len}};
        return transfer(bus, {&msg, 1});
    };
    auto combined = [&](std::size_t outLen, std::size_t inLen) {
        const std::array<Message, 2> msgs{
            Message{addr, false, {out.data(), outLen}},
            Message{addr, true, {in.data(), inLen}},
        };
        return transfer(bus, msgs);
    };
    // The device sends the count first; i2c-dev refuses counts SMBus does
    // not allow.
    auto blockFromDevice = [&](int err) {
        if (err != 0)
        {
            return err;
        }
        std::size_t count = in[0];
        if (count == 0 || count > smbusBlockMax)
        {
            return EPROTO;
        }
        std::copy_n(in.begin(), count + 1, data.begin());
        return 0;
    };
    auto copyOut = [&](std::size_t from, std::size_t n) {
        std::copy_n(data.begin() + static_cast<std::ptrdiff_t>(from), n,
                    out.begin() + 1);
    };

    int err = 0;
    switch (static_cast<SmbusSize>(size))
    {
        case SmbusSize::quick:
            return single(read, 0);
        case SmbusSize::byte:
            if (!read)
            {
                return single(false, 1);
            }
            err = single(true, 1);
            data[0] = err == 0 ? in[0] : data[0];
            return err;
        case SmbusSize::byteData:
            if (!read)
            {
                copyOut(0, 1);
                return single(false, 2);
            }
            err = combined(1, 1);
            data[0] = err == 0 ? in[0] : data[0];
            return err;
        case SmbusSize::wordData:
            if (!read)
            {
                copyOut(0, 2);
                return single(false, 3);
            }
            err = combined(1, 2);
            break;
        case SmbusSize::procCall:
            // The device has no function to compute: it gets the word
            // written and then read back like any other register.
            copyOut(0, 2);
            err = combined(3, 2);
            break;
        case SmbusSize::blockData:
            if (!read)
            {
                if (data[0] > smbusBlockMax)
                {
                    return EINVAL;
                }
                copyOut(0, data[0] + 1u);
                return single(false, data[0] + 2u);
            }
            return blockFromDevice(combined(1, in.size()));
        case SmbusSize::blockProcCall:
            if (data[0] > smbusBlockMax)
            {
                return EINVAL;
            }
            copyOut(0, data[0] + 1u);
            return blockFromDevice(combined(data[0] + 2u, in.size()));
        case SmbusSize::i2cBlockBroken:
            // The old read asked for no length; i2c-dev reads a full block.
            if (read)
            {
                data[0] = smbusBlockMax;
            }
            [[fallthrough]];
        case SmbusSize::i2cBlockData:
        {
            std::size_t len = data[0];
            if (len == 0 || len > smbusBlockMax)
            {
                return EINVAL;
            }
            if (!read)
            {
                copyOut(1, len);
                return single(false, len + 1);
            }
            // A device that stops early makes a short block; the count
            // tells the caller how much came.
            const Device* dev = find(bus, addr);
            if (dev != nullptr && dev->maxRead)
            {
                len = std::min<std::size_t>(len, *dev->maxRead);
            }
            err = combined(1, len);
            if (err == 0)
            {
                std::copy_n(in.begin(), len, data.begin() + 1);
                data[0] = static_cast<std::uint8_t>(len);
            }
            return err;
        }
        default:
            return EINVAL;
    }
    // The word cases.
    if (err == 0)
    {
        std::copy_n(in.begin(), 2, data.begin());
    }
    return err;
}

} // namespace i2csim
