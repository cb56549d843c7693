/* A session's default inbox topic base: the loopback prefix and the client
 * name, cut at 250 characters. */
#include <string>

#include <gtest/gtest.h>

#include "velClientSession/sessionPrivate.h"

TEST(SessionTopicBase, DefaultIsPrefixAndClientNameCutAt250Characters)
{
    const std::string prefix = "#P2P/v:loopback/", fits(250 - prefix.size(), 'n');
    const std::pair<std::string, std::string> cases[] = {
        {"desk-7", prefix + "desk-7"}, {fits, prefix + fits}, {fits + "x", prefix + fits}, {std::string(250, 'n'), prefix + fits}};
    for (const auto &[clientName, topicBase] : cases) {
        const char *props[] = {"SESSION_TRANSPORT", "null", "SESSION_CLIENT_NAME", clientName.c_str(), nullptr};
        velClient_opaqueSession_pt h = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_session_create(props, nullptr, nullptr, &h)) << clientName;
        const _velClient_session *s = vel::sessionOrFail(h, "no session");
        ASSERT_NE(nullptr, s);
        EXPECT_EQ(clientName, s->clientName);
        EXPECT_EQ(topicBase, s->p2pTopicBase) << clientName.size() << " characters of client name";
        EXPECT_EQ(VELCLIENT_OK, velClient_session_destroy(&h));
    }
}
