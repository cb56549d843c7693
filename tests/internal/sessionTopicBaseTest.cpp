/* A session's default inbox topic base: the loopback prefix and the client
 * name, cut at 250 characters. */
#include <string>

#include <gtest/gtest.h>

#include "velClientSession/sessionPrivate.h"

TEST(SessionTopicBase, DefaultIsPrefixAndClientNameCutAt250Characters)
{
    const std::string prefix = "#P2P/v:loopback/";
    const std::string fits(250 - prefix.size(), 'n');
    const std::string longest(250, 'n');
    struct Case {
        std::string clientName;
        std::string topicBase;
    };
    const Case cases[] = {
        {"desk-7", prefix + "desk-7"},
        {fits, prefix + fits},
        {fits + "x", prefix + fits},
        {longest, prefix + fits},
    };
    for (const Case &c : cases) {
        const char *props[] = {"SESSION_TRANSPORT", "null", "SESSION_CLIENT_NAME", c.clientName.c_str(), nullptr};
        velClient_opaqueSession_pt h = nullptr;
        ASSERT_EQ(VELCLIENT_OK, velClient_session_create(props, nullptr, nullptr, &h)) << c.clientName;
        const _velClient_session *s = vel::sessionOrFail(h, "no session");
        ASSERT_NE(nullptr, s);
        EXPECT_EQ(c.clientName, s->clientName);
        EXPECT_EQ(c.topicBase, s->p2pTopicBase) << c.clientName.size() << " characters of client name";
        EXPECT_EQ(VELCLIENT_OK, velClient_session_destroy(&h));
    }
}
