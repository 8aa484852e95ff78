// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ipmid-abi.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>

namespace oem::wire
{

/* The daemon hands a handler exactly the request's bytes (none at all, and
 * possibly a null pointer, for an empty request): past them lies foreign
 * heap memory. Every request byte is read through these helpers, which
 * never look past length and count a field past the request as zero. */

/* Byte i of a request of length bytes; zero past the request. */
inline uint8_t requestByte(const void* request, uint32_t length, size_t i)
{
    return i < length ? static_cast<const uint8_t*>(request)[i] : 0;
}

/* Copies min(length, size) request bytes to out and zeroes the rest. */
inline void requestBytes(const void* request, uint32_t length, void* out,
                         size_t size)
{
    size_t n = std::min<size_t>(length, size);
    if (n > 0)
    {
        memcpy(out, request, n);
    }
    memset(static_cast<uint8_t*>(out) + n, 0, size - n);
}

/* The request as a zero-terminated text: its bytes up to the first zero
 * byte, or all of them when there is none. */
inline std::string requestText(const void* request, uint32_t length)
{
    if (length == 0)
    {
        return {};
    }
    const char* text = static_cast<const char*>(request);
    return std::string(text, strnlen(text, length));
}

/* A request length as the int the EEPROM store takes. */
inline int storeLength(uint32_t length)
{
    return static_cast<int>(std::min<uint32_t>(length, INT_MAX));
}

/* Answers the given bytes with completion code 0x00. */
inline ipmi_ret_t reply(ipmi_response_t response, ipmi_data_len_t dataLen,
                        std::initializer_list<uint8_t> bytes)
{
    std::copy(bytes.begin(), bytes.end(), static_cast<uint8_t*>(response));
    *dataLen = static_cast<uint32_t>(bytes.size());
    return IPMI_CC_OK;
}

/* Answers one byte with the given completion code: a status byte, or the
 * byte that tells the host which step failed. */
inline ipmi_ret_t byteAnswer(ipmi_response_t response, ipmi_data_len_t dataLen,
                             uint8_t value, ipmi_ret_t code)
{
    static_cast<uint8_t*>(response)[0] = value;
    *dataLen = 1;
    return code;
}

/* A request too short (or too long) for its fields: no data, 0xC7. */
inline ipmi_ret_t badLength(ipmi_data_len_t dataLen)
{
    *dataLen = 0;
    return IPMI_CC_REQ_DATA_LEN_INVALID;
}

} // namespace oem::wire
