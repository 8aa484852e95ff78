/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The ABI through which the BMC's IPMI host daemon and an OEM command
 * provider meet. The daemon exports the two functions declared at the end;
 * a provider resolves them when the daemon opens it (dlopen with RTLD_NOW)
 * and calls ipmi_register_callback from its static initializer.
 *
 * Our host (libipmioemhost) implements the same ABI so that the provider can
 * be loaded unchanged on any Linux machine.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C"
{
#endif

typedef struct sd_bus sd_bus;

typedef uint8_t ipmi_netfn_t;
typedef uint8_t ipmi_cmd_t;
typedef uint8_t ipmi_ret_t;
typedef void* ipmi_request_t;
typedef void* ipmi_response_t;
/* Request length on entry, response length on return. */
typedef uint32_t* ipmi_data_len_t;
typedef void* ipmi_context_t;

typedef ipmi_ret_t (*ipmid_callback_t)(ipmi_netfn_t, ipmi_cmd_t, ipmi_request_t,
                                       ipmi_response_t, ipmi_data_len_t,
                                       ipmi_context_t);

/* Privilege a command is registered with. OEM providers of this BMC
 * register everything with SYSTEM_INTERFACE (0xFF). */
enum CommandPrivilege
{
    PRIVILEGE_CALLBACK = 0x01,
    PRIVILEGE_USER = 0x02,
    PRIVILEGE_OPERATOR = 0x03,
    PRIVILEGE_ADMIN = 0x04,
    PRIVILEGE_OEM = 0x05,
    SYSTEM_INTERFACE = 0xFF,
};

/* Completion codes the handlers of this BMC use. */
enum
{
    IPMI_CC_OK = 0x00,
    IPMI_CC_INVALID = 0xC1,
    IPMI_CC_REQ_DATA_LEN_INVALID = 0xC7,
    IPMI_CC_PARM_OUT_OF_RANGE = 0xC9,
    IPMI_CC_INVALID_FIELD_REQUEST = 0xCC,
    IPMI_CC_UNSPECIFIED_ERROR = 0xFF,
};

/*
 * Buffers as the daemon hands them to a legacy handler: the request is
 * exactly the request's bytes (the data of a byte vector of that size, so
 * no readable byte at all for an empty request), and *data_len holds its
 * length on entry. A handler must read request bytes only below that
 * length: past it lies foreign heap memory. The response buffer has room
 * for IPMID_RESPONSE_CAPACITY bytes, zero-filled, and the daemon keeps
 * exactly as many bytes as the handler stores in *data_len (it does not
 * reset the length, so a handler that leaves it alone answers
 * request-length zeros). Our host passes requests the same way and refuses
 * one longer than IPMID_REQUEST_CAPACITY bytes with 0xC7.
 */
#define IPMID_RESPONSE_CAPACITY 65536u
#define IPMID_REQUEST_CAPACITY 65536u

/* One property the daemon reads for a sensor. */
struct ipmid_sensor_property
{
    const char* interface;
    const char* property;
};

/* One record of the daemon's sensor table, as plain data: the sensor
 * number, its IPMI sensor type code, its D-Bus object, the interface its
 * service is looked up by, and the properties read for it, ordered by
 * interface, then property name. */
struct ipmid_sensor_info
{
    uint8_t number;
    uint8_t type;
    const char* path;
    const char* interface;
    const struct ipmid_sensor_property* properties;
    size_t property_count;
};

/*
 * Optional hook: the daemon's sensor table, ordered by sensor number, with
 * the number of records in *count. The records stay valid until the next
 * call. Not every daemon provides it, so providers reference it weakly and
 * take a null address as an empty table.
 */
const struct ipmid_sensor_info* ipmid_sensor_table(size_t* count);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
/*
 * The daemon defines its two functions in C++, without extern "C", so the
 * loader matches them by their mangled names, which spell out the
 * parameter types. The daemon's handler length is a size_t*: on the BMC
 * (32-bit ARM) that is unsigned int, the same type as our uint32_t, and
 * the names agree. Where size_t is 64 bits wide, the daemon's name has
 * unsigned long* in it, so the declaration takes that name explicitly:
 * that is what lets the provider load into the daemon built on a 64-bit
 * development machine. There the daemon presets all 8 bytes of the length
 * and keeps what the handler stores in the low 4, which holds on
 * little-endian machines only.
 */
#if SIZE_MAX > UINT32_MAX
#define IPMID_REGISTER_CALLBACK_NAME                                           \
    __asm__("_Z22ipmi_register_callbackhhPvPFhhhS_S_PmS_E16CommandPrivilege")
#else
#define IPMID_REGISTER_CALLBACK_NAME
#endif

void ipmi_register_callback(ipmi_netfn_t netfn, ipmi_cmd_t cmd,
                            ipmi_context_t context, ipmid_callback_t handler,
                            enum CommandPrivilege priv)
    IPMID_REGISTER_CALLBACK_NAME;

/* The daemon's own D-Bus connection; may be NULL. */
sd_bus* ipmid_get_sd_bus_connection(void);
#endif
