// An application in C++: one message built, encoded and decoded back.
#include <iostream>

#include <velclient/velClient.hpp>

int main()
{
    try {
        velclient::Library library;
        velclient::Message msg = velclient::Message::create();
        msg.set_topic("consumer/cpp");
        msg.create_user_properties().add(std::int32_t{7}, "n");
        std::vector<std::uint8_t> wire = msg.to_wire();
        velclient::Message back = velclient::Message::from_wire(wire);
        if (back.destination()->name != "consumer/cpp" || back.user_properties()->get<int>("n") != 7) {
            std::cerr << "consumer (C++): the message did not come back\n";
            return 1;
        }
        std::cout << "consumer (C++): " << wire.size() << " wire bytes, topic and property back\n";
    } catch (const velclient::Error &e) {
        std::cerr << "consumer (C++): " << e.what() << '\n';
        return 1;
    }
    return 0;
}
