#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "codec/DhcpCodec.h"
#include "tests/codec/DhcpMessages.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Codec::Test::Bytes;
using Codec::Test::dhcpMessage;
using Platform::IpAddr;
using Platform::Pkt;

std::string serverIdOf(const Bytes& msg) {
   const auto addr = getServerId(*Pkt::copyOf(msg));
   return addr ? addr->toString() : "none";
}

// The names are behaviour (traces and the smart relay's DHCPREQUEST test read them);
// the ends of the table and the values around it are where an off-by-one shows. Then
// where option 53 is looked for, and what makes it unreadable. Option 52 lends `file`
// (1), `sname` (2) or both (3, file first: RFC 2131 section 4.1).
TEST(DhcpOptionReadTest, MessageType) {
   struct Case {
      const char* name;
      Bytes msg;
      const char* expected;
   };
   const Bytes ack = {53, 1, 5, 255};
   const Bytes nak = {53, 1, 6, 255};
   const Case cases[] = {
       {"type 0", dhcpMessage({53, 1, 0, 255}), "DHCPUNKNOWN"},
       {"type 1", dhcpMessage({53, 1, 1, 255}), "DHCPDISCOVER"},
       {"type 2", dhcpMessage({53, 1, 2, 255}), "DHCPOFFER"},
       {"type 8", dhcpMessage({53, 1, 8, 255}), "DHCPINFORM"},
       {"type 18", dhcpMessage({53, 1, 18, 255}), "DHCPTLS"},
       {"type 19", dhcpMessage({53, 1, 19, 255}), "DHCPUNKNOWN"},
       {"type 255", dhcpMessage({53, 1, 255, 255}), "DHCPUNKNOWN"},
       {"pads before it", dhcpMessage({0, 0, 53, 1, 3, 255}), "DHCPREQUEST"},
       {"no end option", dhcpMessage({53, 1, 3}), "DHCPREQUEST"},
       {"no option 53", dhcpMessage({54, 4, 1, 2, 3, 4, 255}), "BOOTP"},
       {"no cookie", Bytes(300, 0), "BOOTP"},
       {"cookie one bit off", Codec::Test::withByte(dhcpMessage({53, 1, 3, 255}), 239, 98),
        "BOOTP"},
       {"header only", Bytes(236, 0), "BOOTP"},
       {"one byte short of a header", Bytes(235, 0), "DHCPMALFORMED"},
       {"after the end option", dhcpMessage({255, 53, 1, 3}), "BOOTP"},
       {"two bytes long", dhcpMessage({53, 2, 3, 3, 255}), "DHCPMALFORMED"},
       {"twice", dhcpMessage({53, 1, 3, 53, 1, 3, 255}), "DHCPMALFORMED"},
       {"option before it runs past the end", dhcpMessage({12, 9, 1, 2}), "DHCPMALFORMED"},
       {"option after it runs past the end", dhcpMessage({53, 1, 3, 12, 9, 1}), "DHCPMALFORMED"},
       {"in file, lent", dhcpMessage({52, 1, 1, 255}, ack), "DHCPACK"},
       {"in sname, lent", dhcpMessage({52, 1, 2, 255}, {}, ack), "DHCPACK"},
       {"in file, not lent", dhcpMessage({255}, ack), "BOOTP"},
       {"in sname, only file lent", dhcpMessage({52, 1, 1, 255}, {}, ack), "BOOTP"},
       {"in sname, both lent", dhcpMessage({52, 1, 3, 255}, {255}, nak), "DHCPNAK"},
       {"in both lent fields", dhcpMessage({52, 1, 3, 255}, ack, nak), "DHCPMALFORMED"},
       {"in the options field and in file", dhcpMessage({53, 1, 3, 52, 1, 1, 255}, nak),
        "DHCPMALFORMED"},
       {"overload value 4", dhcpMessage({52, 1, 4, 53, 1, 3, 255}), "DHCPMALFORMED"},
       {"overload twice", dhcpMessage({52, 1, 1, 52, 1, 1, 255}, ack), "DHCPMALFORMED"},
       {"lent file cut short", dhcpMessage({52, 1, 1, 53, 1, 3, 255}, {12, 200}), "DHCPMALFORMED"},
       {"option 52 inside file lends nothing", dhcpMessage({52, 1, 1, 255}, {52, 1, 2, 255}, ack),
        "BOOTP"},
   };
   for (const Case& c : cases)
      EXPECT_EQ(getDhcpMsgType(*Pkt::copyOf(c.msg), 0), c.expected) << c.name;

   Bytes frame(42, 0xee);
   const Bytes msg = dhcpMessage({53, 1, 1, 255});
   frame.insert(frame.end(), msg.begin(), msg.end());
   EXPECT_EQ(getDhcpMsgType(*Pkt::copyOf(frame), 42), "DHCPDISCOVER") << "message inside a frame";
}

TEST(DhcpOptionReadTest, ServerIdAndRequestedAddress) {
   const Bytes both = dhcpMessage({53, 1, 3, 50, 4, 10, 0, 0, 7, 54, 4, 10, 0, 0, 1, 255});
   EXPECT_EQ(serverIdOf(both), "10.0.0.1");
   auto pkt = Pkt::copyOf(both);
   EXPECT_EQ(getRequestedIpOption(*pkt, bootRequest), IpAddr::parse("10.0.0.7"));
   EXPECT_EQ(getRequestedIpOption(*pkt, bootReply), std::nullopt) << "servers never send it";

   EXPECT_EQ(serverIdOf(dhcpMessage({54, 3, 10, 0, 0, 255})), "none") << "3 bytes";
   EXPECT_EQ(serverIdOf(dhcpMessage({54, 4, 10, 0, 0, 1, 54, 4, 10, 0, 0, 2, 255})), "none")
       << "twice";
   EXPECT_EQ(serverIdOf(dhcpMessage({52, 1, 2, 255}, {}, {54, 4, 192, 0, 2, 1, 255})), "192.0.2.1")
       << "in a lent sname";
}

TEST(DhcpOptionReadTest, SetServerIdRewritesOnlyTheValue) {
   const IpAddr relay = *IpAddr::parse("198.51.100.9");
   struct Case {
      const char* name;
      Bytes msg;
      ptrdiff_t valueAt;  // where the 4 bytes go; -1: refused, packet unchanged
   };
   const Case cases[] = {
       {"options field", dhcpMessage({53, 1, 3, 54, 4, 10, 0, 0, 1, 255}), 240 + 5},
       {"lent file", dhcpMessage({52, 1, 1, 255}, {0, 54, 4, 10, 0, 0, 1, 255}), 108 + 3},
       {"no option 54", dhcpMessage({53, 1, 1, 255}), -1},
       {"option 54 of 5 bytes", dhcpMessage({54, 5, 10, 0, 0, 1, 0, 255}), -1},
       {"option 54 twice", dhcpMessage({54, 4, 10, 0, 0, 1, 54, 4, 10, 0, 0, 1, 255}), -1},
       {"malformed area", dhcpMessage({54, 4, 10, 0, 0, 1, 60, 30, 1}), -1},
       {"no cookie", Bytes(300, 0), -1},
   };
   for (const Case& c : cases) {
      auto pkt = Pkt::copyOf(c.msg);
      EXPECT_EQ(setServerId(*pkt, relay), c.valueAt >= 0) << c.name;
      Bytes expected = c.msg;
      if (c.valueAt >= 0) {
         const Bytes value = {198, 51, 100, 9};
         std::copy(value.begin(), value.end(), expected.begin() + c.valueAt);
      }
      EXPECT_EQ(Codec::Test::bytesOf(*pkt), expected) << c.name;
   }
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
