/*
 * fieldConvert.h - the conversion rules of the typed getters: which stored
 * field types convert to which requested type, with their range limits and
 * the parsing of strings. The integer rules are data: one row of accepted
 * ranges per requested type.
 */
#pragma once

#include <cstdint>

#include "velclient/velClientMsg.h"

namespace vel::convert {

__extension__ typedef __int128 wide_t;

/* Inclusive range of accepted stored values; empty (lo > hi) refuses the type. */
struct Range {
    wide_t lo;
    wide_t hi;
};

/* How a string is parsed for an integer getter. */
struct StringRule {
    bool sixtyFour;  /* parse as 64-bit and keep it; else cut to the low 32 bits */
    bool lowSigned;  /* the low 32 bits read as signed (else unsigned) */
    Range range;
};

/* Accepted ranges by stored type (index = velClient_fieldType, BOOL..INT64). */
struct IntRule {
    Range stored[9];
    StringRule string;
};

/* The stored value of an integer or boolean field, widened; false for other types. */
bool storedInteger(const velClient_field_t &f, wide_t &v);
/* strtol / strtoll with base 0 over the whole string. */
bool parseInteger(const char *text, bool sixtyFour, wide_t &v);
/* An integer getter's conversion; false when the table refuses it. */
bool toInteger(const velClient_field_t &f, const IntRule &rule, wide_t &v);

bool toBoolean(const velClient_field_t &f, velClient_bool_t &out);
bool toChar(const velClient_field_t &f, char &out);
bool toWchar(const velClient_field_t &f, velClient_wchar_t &out);
bool toFloat(const velClient_field_t &f, float &out);
bool toDouble(const velClient_field_t &f, double &out);

/* The stored type's name in conversion errors. */
const char *typeName(velClient_fieldType_t type);

extern const IntRule kUint8, kInt8, kUint16, kInt16, kUint32, kInt32, kUint64, kInt64;

} // namespace vel::convert
