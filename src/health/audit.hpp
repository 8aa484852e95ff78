// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "oem/handler.hpp"

#include <cstddef>
#include <cstdint>
#include <string>

/* The web side's audit logs, one event a line. The names are the ones the
 * web side writes, spelling included. */
constexpr const char* POWER_AUDIT_LOG = "/usr/share/www/power_aduit.log";
constexpr const char* LOGIN_AUDIT_LOG = "/usr/share/www/login_aduit.log";

/* A record line splits into at most this many fields. */
constexpr int AUDIT_LOG_FIELDS = 20;
/* A record is a line read in pieces of up to AUDIT_RECORD_PIECE - 1
 * characters. */
constexpr size_t AUDIT_RECORD_PIECE = 159;
/* Size of one record's answer, text then zeros; a longer text is cut. */
constexpr size_t AUDIT_ANSWER_SIZE = 160;
/* Records past this index cannot be read. */
constexpr uint8_t AUDIT_MAX_INDEX = 200;
/* First answer byte of a record that could not be read. */
constexpr uint8_t AUDIT_NO_RECORD = 201;

extern "C"
{
/* Splits line in place on runs of blanks and stores a pointer to each field
 * in fields (AUDIT_LOG_FIELDS entries), at most AUDIT_LOG_FIELDS of them.
 * Returns the number of fields stored, 0 for a line without any. */
OEM_EXPORT int logLineSplit(char* line, char** fields);
}

namespace oem
{

/* The answer text of record number `number` from its line (modified in
 * place): "N|field0 field1|field5|field6 without its 5-character prefix|"
 * then each of fields 7 to 19 followed by a blank, then a line feed. Fields
 * 2 to 4 are left out. Missing fields answer as empty texts. */
std::string auditRecordText(int number, char* line);

/* Reads the power log (power true) or the login log. Record 0 counts the
 * records; any other fills answer (AUDIT_ANSWER_SIZE bytes, cleared by the
 * caller) with that record's text, or puts AUDIT_NO_RECORD in its first
 * byte when the file or the record is missing. count is the number of
 * records read. */
void readAuditRecord(bool power, uint8_t record, uint8_t* answer,
                     uint32_t* count);

} // namespace oem
