/* A message's dump without the lines that only the receive side sets (its receive time and message id): what
 * a message sent and the same message received have in common. */
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "velclient/velClientMsg.h"

namespace veltest {

inline std::string dumpWithoutReceiveLines(velClient_opaqueMsg_pt msg)
{
    std::vector<char> buffer(1 << 20);
    EXPECT_EQ(VELCLIENT_OK, velClient_msg_dump(msg, buffer.data(), buffer.size()));
    std::istringstream dump(buffer.data());
    std::string kept;
    for (std::string line; std::getline(dump, line);)
        if (line.rfind("RcvTimestamp:", 0) != 0 && line.rfind("Message Id:", 0) != 0)
            kept.append(line).append("\n");
    return kept;
}

} // namespace veltest
