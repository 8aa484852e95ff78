// SPDX-License-Identifier: Apache-2.0
// Our ioctl, loaded ahead of libc. On a descriptor of a regular file it
// serves the i2c-dev requests I2C_RDWR, I2C_SLAVE, I2C_SLAVE_FORCE and
// I2C_SMBUS from the bus description in that file, so code written for
// /dev/i2c-N runs unchanged in the sandbox root. Everything else goes to the
// kernel. Errors follow i2c-dev: EINVAL for bad arguments, EFAULT for a
// null pointer, ENXIO for an address that does not acknowledge (the NAK
// code most bus drivers give), EBUSY for a plain I2C_SLAVE to a device bound
// to a kernel driver, EIO when the description cannot be read.
#include "busfile.hpp"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <string>

namespace
{

using namespace i2csim;

// A description is a few KiB; anything this big is not one.
constexpr std::size_t maxFileSize = 1 << 20;
// Bytes of data shown per message in the log.
constexpr std::size_t maxLoggedBytes = 64;

long passToKernel(int fd, unsigned long request, unsigned long arg)
{
    return syscall(SYS_ioctl, fd, request, arg);
}

std::string pathOf(int fd)
{
    std::array<char, 4096> buf{};
    std::string link = "/proc/self/fd/" + std::to_string(fd);
    ssize_t n = readlink(link.c_str(), buf.data(), buf.size() - 1);
    if (n <= 0)
    {
        return "fd " + std::to_string(fd);
    }
    return std::string(buf.data(), static_cast<std::size_t>(n));
}

void writeFully(int fd, const std::string& s)
{
    std::size_t done = 0;
    while (done < s.size())
    {
        ssize_t n = write(fd, s.data() + done, s.size() - done);
        if (n < 0 && errno == EINTR)
        {
            continue;
        }
        if (n <= 0)
        {
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

// A broken description would otherwise flood stderr with one line per
// transfer; the first one says what to fix.
void reportOnce(int fd, std::size_t line, const std::string& error)
{
    static std::atomic<bool> reported{false};
    if (reported.exchange(true))
    {
        return;
    }
    std::string msg = "i2csim: " + pathOf(fd);
    if (line > 0)
    {
        msg += " line " + std::to_string(line);
    }
    msg += ": " + error + "; every transfer on this bus fails with EIO\n";
    writeFully(STDERR_FILENO, msg);
}

const char* logPath()
{
    const char* path = std::getenv("I2CSIM_LOG");
    return (path != nullptr && *path != '\0') ? path : nullptr;
}

void appendLog(const char* path, const std::string& line)
{
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
    {
        return;
    }
    // One write per line keeps lines whole among several processes.
    writeFully(fd, line);
    close(fd);
}

constexpr char hexDigits[] = "0123456789abcdef";

// 0x and at least two hex digits.
std::string hexNumber(unsigned long v)
{
    std::string digits;
    do
    {
        digits.insert(digits.begin(), hexDigits[v & 0x0f]);
        v >>= 4;
    } while (v != 0 || digits.size() < 2);
    return "0x" + digits;
}

std::string hexBytes(const std::uint8_t* data, std::size_t n)
{
    std::string out;
    for (std::size_t i = 0; i < n && i < maxLoggedBytes; ++i)
    {
        out += hexDigits[data[i] >> 4];
        out += hexDigits[data[i] & 0x0f];
    }
    if (n > maxLoggedBytes)
    {
        out += "...";
    }
    return out;
}

std::string resultText(int r)
{
    if (r >= 0)
    {
        return " result=" + std::to_string(r);
    }
    const char* name = strerrorname_np(-r);
    return " result=-1 errno=" +
           (name != nullptr ? std::string(name) : std::to_string(-r));
}

// Which file a descriptor refers to. Tests delete bus files and make new
// ones, which may get the freed inode number at once; the file handle
// carries the inode's generation as well, where the file system gives one.
struct FileId
{
    dev_t dev = 0;
    ino_t ino = 0;
    std::array<unsigned char, 64> handle{};
    unsigned handleSize = 0;

    bool operator==(const FileId&) const = default;
};

FileId identify(int fd, const struct stat& st)
{
    FileId id{st.st_dev, st.st_ino};
    // file_handle ends in a flexible array: room for the handle follows.
    alignas(file_handle) std::array<unsigned char, sizeof(file_handle) + 64>
        buf{};
    auto* fh = new (buf.data()) file_handle{};
    fh->handle_bytes = buf.size() - sizeof(file_handle);
    int mountId = 0;
    if (name_to_handle_at(fd, "", fh, &mountId, AT_EMPTY_PATH) == 0 &&
        fh->handle_bytes <= id.handle.size())
    {
        id.handleSize = fh->handle_bytes;
        std::memcpy(id.handle.data(), buf.data() + sizeof(file_handle),
                    id.handleSize);
    }
    return id;
}

std::optional<FileId> identify(int fd)
{
    struct stat st = {};
    if (fstat(fd, &st) != 0)
    {
        return std::nullopt;
    }
    return identify(fd, st);
}

// The address I2C_SLAVE set, per descriptor. The file's identity is kept
// with it so that a descriptor number reused for another file starts at
// address 0 like a fresh open.
struct Binding
{
    FileId file;
    std::uint16_t addr;
};

constexpr std::size_t maxBindings = 256;
std::mutex bindingMutex;

std::map<int, Binding>& bindings()
{
    // Built on first use: a plug-in may run I2C from its own static
    // initializers.
    static auto* table = new std::map<int, Binding>;
    return *table;
}

void bind(int fd, const FileId& file, std::uint16_t addr)
{
    std::lock_guard guard(bindingMutex);
    auto& table = bindings();
    if (table.size() >= maxBindings && !table.contains(fd))
    {
        std::erase_if(table, [](const auto& entry) {
            return identify(entry.first) != entry.second.file;
        });
        if (table.size() >= maxBindings)
        {
            table.erase(table.begin());
        }
    }
    table[fd] = Binding{file, addr};
}

std::uint16_t boundAddress(int fd, const FileId& file)
{
    std::lock_guard guard(bindingMutex);
    auto& table = bindings();
    auto it = table.find(fd);
    return (it != table.end() && it->second.file == file) ? it->second.addr : 0;
}

int readFile(int fd, std::string& text)
{
    std::array<char, 4096> buf{};
    off_t offset = 0;
    for (;;)
    {
        ssize_t n = pread(fd, buf.data(), buf.size(), offset);
        if (n < 0 && errno == EINTR)
        {
            continue;
        }
        if (n < 0)
        {
            return errno;
        }
        if (n == 0)
        {
            return 0;
        }
        if (text.size() + static_cast<std::size_t>(n) > maxFileSize)
        {
            return EFBIG;
        }
        text.append(buf.data(), static_cast<std::size_t>(n));
        offset += n;
    }
}

int writeFile(int fd, const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size())
    {
        ssize_t n = pwrite(fd, text.data() + done, text.size() - done,
                           static_cast<off_t>(done));
        if (n < 0 && errno == EINTR)
        {
            continue;
        }
        if (n <= 0)
        {
            return n < 0 ? errno : EIO;
        }
        done += static_cast<std::size_t>(n);
    }
    while (ftruncate(fd, static_cast<off_t>(text.size())) != 0)
    {
        if (errno != EINTR)
        {
            return errno;
        }
    }
    return 0;
}

// flock keeps other processes (and other open file descriptions) out; the
// mutex keeps out threads of this process sharing one descriptor, which
// flock would let through.
std::mutex fileMutex;

class FileLock
{
  public:
    explicit FileLock(int fd) : locked(fd)
    {
        while (flock(locked, LOCK_EX) != 0)
        {
            if (errno != EINTR)
            {
                err = errno;
                return;
            }
        }
    }
    ~FileLock()
    {
        if (err == 0)
        {
            flock(locked, LOCK_UN);
        }
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    int locked;
    int err = 0;
};

// Runs op on the bus described by the file and saves the result if op
// changed it. op returns 0 or an errno value; the result is 0 or -errno.
template <typename Op>
int withBus(int fd, Op&& op)
{
    std::lock_guard guard(fileMutex);
    FileLock lock(fd);
    if (lock.err != 0)
    {
        return -lock.err;
    }
    std::string text;
    if (int err = readFile(fd, text); err != 0)
    {
        if (err != EFBIG)
        {
            return -err;
        }
        reportOnce(fd, 0, "larger than 1 MiB, not a bus description");
        return -EIO;
    }
    ParseResult parsed = parse(text);
    if (!parsed.bus)
    {
        reportOnce(fd, parsed.errorLine, parsed.error);
        return -EIO;
    }
    Bus& bus = *parsed.bus;
    const Bus before = bus;
    int err = op(bus);
    if (bus != before)
    {
        if (int werr = writeFile(fd, serialize(bus)); werr != 0)
        {
            return -werr;
        }
    }
    return -err;
}

int serveSlave(int fd, const FileId& file, unsigned long arg, bool force,
               std::string* log)
{
    int r = 0;
    if (arg > 0x7f)
    {
        r = -EINVAL;
    }
    else if (!force)
    {
        // Only a plain request looks at the bus: a device bound to a kernel
        // driver refuses it.
        r = withBus(
            fd, [&](Bus& bus) { return checkSlaveAddress(bus, arg, false); });
    }
    if (r == 0)
    {
        bind(fd, file, static_cast<std::uint16_t>(arg));
    }
    if (log != nullptr)
    {
        *log = "slave addr=" + hexNumber(arg) + resultText(r);
    }
    return r;
}

int serveRdwr(int fd, unsigned long arg, std::string* log)
{
    auto* user = reinterpret_cast<i2c_rdwr_ioctl_data*>(arg);
    if (user == nullptr)
    {
        return -EFAULT;
    }
    i2c_rdwr_ioctl_data request{};
    std::memcpy(&request, user, sizeof(request));
    if (request.msgs == nullptr || request.nmsgs == 0 ||
        request.nmsgs > I2C_RDWR_IOCTL_MAX_MSGS)
    {
        return -EINVAL;
    }

    // Work on copies, as the kernel does, so a read buffer is written only
    // when the whole transfer succeeded.
    std::size_t count = request.nmsgs;
    std::array<i2c_msg, I2C_RDWR_IOCTL_MAX_MSGS> userMsgs{};
    std::memcpy(userMsgs.data(), request.msgs, count * sizeof(i2c_msg));
    std::array<std::vector<std::uint8_t>, I2C_RDWR_IOCTL_MAX_MSGS> buffers;
    std::array<Message, I2C_RDWR_IOCTL_MAX_MSGS> msgs{};
    for (std::size_t i = 0; i < count; ++i)
    {
        const i2c_msg& m = userMsgs[i];
        if (m.len > maxMessageLength)
        {
            return -EINVAL;
        }
        // Ten-bit addresses, block reads with a received length and the
        // protocol tweaks are not simulated.
        if ((m.flags & ~I2C_M_RD) != 0)
        {
            return -EINVAL;
        }
        if (m.len > 0 && m.buf == nullptr)
        {
            return -EFAULT;
        }
        buffers[i].assign(m.buf, m.buf + m.len);
        msgs[i] = Message{m.addr,
                          (m.flags & I2C_M_RD) != 0,
                          {buffers[i].data(), buffers[i].size()}};
    }

    int r = withBus(fd, [&](Bus& bus) {
        return transfer(bus, std::span(msgs.data(), count));
    });
    if (r == 0)
    {
        for (std::size_t i = 0; i < count; ++i)
        {
            if (msgs[i].read)
            {
                std::memcpy(userMsgs[i].buf, buffers[i].data(),
                            buffers[i].size());
            }
        }
        r = static_cast<int>(count);
    }

    if (log != nullptr)
    {
        *log = "rdwr msgs=" + std::to_string(count);
        for (std::size_t i = 0; i < count; ++i)
        {
            const Message& m = msgs[i];
            *log += " m" + std::to_string(i) + "=" + (m.read ? "r" : "w") +
                    ":" + hexNumber(m.addr) + ":" +
                    std::to_string(m.data.size());
            if (!m.read || r >= 0)
            {
                *log += ":" + hexBytes(m.data.data(), m.data.size());
            }
        }
        *log += resultText(r);
    }
    return r;
}

const char* smbusSizeName(std::uint32_t size)
{
    switch (size)
    {
        case I2C_SMBUS_QUICK:
            return "quick";
        case I2C_SMBUS_BYTE:
            return "byte";
        case I2C_SMBUS_BYTE_DATA:
            return "byte_data";
        case I2C_SMBUS_WORD_DATA:
            return "word_data";
        case I2C_SMBUS_PROC_CALL:
            return "proc_call";
        case I2C_SMBUS_BLOCK_DATA:
            return "block_data";
        case I2C_SMBUS_I2C_BLOCK_BROKEN:
            return "i2c_block_broken";
        case I2C_SMBUS_BLOCK_PROC_CALL:
            return "block_proc_call";
        case I2C_SMBUS_I2C_BLOCK_DATA:
            return "i2c_block_data";
        default:
            return nullptr;
    }
}

// The log's len= and data= for an SMBus transaction. len is the block
// length the caller gave or asked for; data is what went to the device for
// a write, what came back for a read.
std::string smbusLogData(std::uint32_t size, bool read, const SmbusData& d,
                         std::size_t requested, bool ok)
{
    const bool block =
        size == I2C_SMBUS_BLOCK_DATA || size == I2C_SMBUS_BLOCK_PROC_CALL ||
        size == I2C_SMBUS_I2C_BLOCK_BROKEN || size == I2C_SMBUS_I2C_BLOCK_DATA;
    std::string out;
    if (block && (size != I2C_SMBUS_BLOCK_DATA || !read))
    {
        out = " len=" + std::to_string(requested);
    }
    if (read && !ok)
    {
        return out;
    }
    if (block)
    {
        std::size_t n = std::min<std::size_t>(d[0], smbusBlockMax);
        out += " data=" + hexBytes(d.data() + 1, n);
    }
    else if (size == I2C_SMBUS_WORD_DATA || size == I2C_SMBUS_PROC_CALL)
    {
        out += " data=" + hexBytes(d.data(), 2);
    }
    else if (size == I2C_SMBUS_BYTE_DATA || (size == I2C_SMBUS_BYTE && read))
    {
        out += " data=" + hexBytes(d.data(), 1);
    }
    return out;
}

int serveSmbus(int fd, const FileId& file, unsigned long arg, std::string* log)
{
    auto* user = reinterpret_cast<i2c_smbus_ioctl_data*>(arg);
    if (user == nullptr)
    {
        return -EFAULT;
    }
    i2c_smbus_ioctl_data request{};
    std::memcpy(&request, user, sizeof(request));
    const std::uint32_t size = request.size;
    const bool read = request.read_write == I2C_SMBUS_READ;
    if (smbusSizeName(size) == nullptr ||
        (request.read_write != I2C_SMBUS_READ &&
         request.read_write != I2C_SMBUS_WRITE))
    {
        return -EINVAL;
    }

    // Which bytes of the caller's union i2c-dev reads and writes back.
    const bool noData =
        size == I2C_SMBUS_QUICK || (size == I2C_SMBUS_BYTE && !read);
    if (!noData && request.data == nullptr)
    {
        return -EINVAL;
    }
    std::size_t dataSize = sizeof(i2c_smbus_data::block);
    if (size == I2C_SMBUS_BYTE || size == I2C_SMBUS_BYTE_DATA)
    {
        dataSize = sizeof(i2c_smbus_data::byte);
    }
    else if (size == I2C_SMBUS_WORD_DATA || size == I2C_SMBUS_PROC_CALL)
    {
        dataSize = sizeof(i2c_smbus_data::word);
    }
    const bool isWord =
        size == I2C_SMBUS_WORD_DATA || size == I2C_SMBUS_PROC_CALL;
    const bool isCall =
        size == I2C_SMBUS_PROC_CALL || size == I2C_SMBUS_BLOCK_PROC_CALL;
    const bool copyIn =
        !noData && (isCall || !read || size == I2C_SMBUS_I2C_BLOCK_DATA);
    const bool copyBack = !noData && (isCall || read);

    i2c_smbus_data temp{};
    if (copyIn)
    {
        std::memcpy(&temp, request.data, dataSize);
    }
    SmbusData data{};
    if (isWord)
    {
        data[0] = static_cast<std::uint8_t>(temp.word & 0xff);
        data[1] = static_cast<std::uint8_t>(temp.word >> 8);
    }
    else
    {
        std::memcpy(data.data(), temp.block, data.size());
    }

    const std::size_t requested =
        (size == I2C_SMBUS_I2C_BLOCK_BROKEN && read) ? smbusBlockMax : data[0];
    const std::uint16_t addr = boundAddress(fd, file);
    int r = withBus(fd, [&](Bus& bus) {
        return smbusTransfer(bus, addr, read, request.command, size, data);
    });

    if (r == 0 && copyBack)
    {
        if (isWord)
        {
            temp.word = static_cast<std::uint16_t>(data[0] | data[1] << 8);
        }
        else
        {
            std::memcpy(temp.block, data.data(), data.size());
        }
        std::memcpy(request.data, &temp, dataSize);
    }

    if (log != nullptr)
    {
        *log = "smbus addr=" + hexNumber(addr) + " rw=" + (read ? "r" : "w") +
               " cmd=" + hexNumber(request.command) +
               " size=" + smbusSizeName(size) +
               smbusLogData(size, read, data, requested, r == 0) +
               resultText(r);
    }
    return r;
}

int serve(int fd, const struct stat& st, unsigned long request,
          unsigned long arg)
{
    const char* log = logPath();
    std::string line;
    std::string* out = log != nullptr ? &line : nullptr;
    int r = 0;
    switch (request)
    {
        case I2C_SLAVE:
        case I2C_SLAVE_FORCE:
            r = serveSlave(fd, identify(fd, st), arg,
                           request == I2C_SLAVE_FORCE, out);
            break;
        case I2C_RDWR:
            r = serveRdwr(fd, arg, out);
            break;
        default:
            r = serveSmbus(fd, identify(fd, st), arg, out);
            break;
    }
    if (log != nullptr)
    {
        if (line.empty())
        {
            // Refused before anything was looked at.
            line = (request == I2C_RDWR    ? "rdwr"
                    : request == I2C_SMBUS ? "smbus"
                                           : "slave") +
                   resultText(r);
        }
        // Kind first, then where it went, then what the kind records.
        std::size_t kindEnd = line.find(' ');
        line.insert(kindEnd,
                    " dev=" + pathOf(fd) + " pid=" + std::to_string(getpid()));
        appendLog(log, line + "\n");
    }
    return r;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int
    ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list ap;
    va_start(ap, request);
    // Same bits as glibc's void*; I2C_SLAVE passes a number.
    unsigned long arg = va_arg(ap, unsigned long);
    va_end(ap);

    if (request != I2C_RDWR && request != I2C_SLAVE &&
        request != I2C_SLAVE_FORCE && request != I2C_SMBUS)
    {
        return static_cast<int>(passToKernel(fd, request, arg));
    }
    struct stat st = {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
    {
        return static_cast<int>(passToKernel(fd, request, arg));
    }

    const int savedErrno = errno;
    int r = 0;
    try
    {
        r = serve(fd, st, request, arg);
    }
    catch (const std::bad_alloc&)
    {
        r = -ENOMEM;
    }
    catch (...)
    {
        r = -EIO;
    }
    if (r < 0)
    {
        errno = -r;
        return -1;
    }
    errno = savedErrno;
    return r;
}
