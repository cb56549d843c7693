/*
 * dumpWriter.h - the writers of the message dump. Output goes to a caller's
 * buffer (bounded, cut at the first text that does not fit) or, with a null
 * buffer, to standard output. sizeLeft counts the bytes still free; the last
 * byte of the buffer is kept for the final NUL.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#include "velClientMsg/velClientMsgPrivate.h"

/* Writes indent spaces and the formatted text. */
void _velClient_dump(char *buffer_p, std::size_t bufferSize, std::size_t *sizeLeft_p, unsigned indent,
                     const char *format_p, ...) __attribute__((format(printf, 5, 6)));

/* "len=%u\n", then 16 bytes a line: hex column, five blanks, character column. */
void _velClient_hex_dump(const std::uint8_t *data_p, std::uint32_t dataLen, char *buffer_p, std::size_t bufferSize,
                         std::size_t *sizeLeft_p, unsigned indent, bool newLineAtEnd);

/* "len=%u\n", then the text with unprintable bytes as " 0x%02x ", about 60 columns a line. */
void _velClient_char_dump(const std::uint8_t *data_p, std::uint32_t dataLen, char *buffer_p, std::size_t bufferSize,
                          std::size_t *sizeLeft_p);

/* "Topic 'x'" and the like; no newline. */
void _velClient_destination_dump(const velClient_destination_t *dest_p, char *buffer_p, std::size_t bufferSize,
                                 std::size_t *sizeLeft_p);

/* The consumer-id lines of a message (its parts) whose count is above 0. */
void _velClient_consumerId_dump(const velClient_bufInfo_t *parts, std::uint32_t count, char *buffer_p,
                                std::size_t bufferSize, std::size_t *sizeLeft_p);

/* One field: its type tag at indent, nested content at subIndent + 2. */
void _velClient_field_dump(const velClient_field_t *field_p, char *buffer_p, std::size_t bufferSize,
                           std::size_t *sizeLeft_p, unsigned indent, unsigned subIndent);

/* Every field of a container, one a line; the reading position is kept. */
void _velClient_container_dump(velClient_opaqueContainer_pt opaqueCont_p, char *buffer_p, std::size_t bufferSize,
                               std::size_t *sizeLeft_p, unsigned indent);
