/*
 * tlvCodec.cpp - the reader's primitive of the structured-data encoding, out
 * of line: decoding one field at a position into the application's field
 * descriptor, with every length checked against the end of the enclosing
 * bytes (the decoding itself is inline in tlvDecode.h).
 */
#include "velClientMsg/tlvDecode.h"

std::int64_t _velClient_tlv_decodeField(const std::uint8_t *p, const std::uint8_t *end, velClient_field_t *f)
{
    return vel::tlv::decodeField(p, end, f);
}
