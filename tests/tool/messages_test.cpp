// Messages as a person sees them, and as files hold them.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/genetlink.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "datapathctl/message_decoder.h"
#include "kernel_interface/tavik_wlan.h"
#include "tests/support/netlink_bytes.h"

namespace {

using datapathctl::MessageDecoder;
using datapathctl::Packet;
using netlink_bytes::acknowledgement;
using netlink_bytes::attribute;
using netlink_bytes::generic;
using netlink_bytes::message;
using netlink_bytes::nest;
using netlink_bytes::raw;
using netlink_bytes::text;

constexpr uint16_t kFamily = 28;

std::vector<uint8_t> bytes(std::string_view text) { return {text.begin(), text.end()}; }

std::string tuple(const char* eight_bytes) {
  return nest(TAVIK_WLAN_TUPLE_ELEMENT, attribute(TAVIK_WLAN_TUPLE_ATTR, {eight_bytes, 8}));
}

/// Attributes at 20, 28, 32, 36, 48 and 52.
std::string add_tuples(uint32_t sequence, uint32_t port_id = 0) {
  return message(kFamily, NLM_F_REQUEST | NLM_F_ACK, sequence,
                 generic(TAVIK_WLAN_CMD_ADD_TUPLES,
                         attribute(TAVIK_WLAN_ATTR_SELECTOR, "\1") +
                             nest(TAVIK_WLAN_ATTR_TUPLES, tuple("\x01\xbb\0\0\4\6\0\0") +
                                                              tuple("\x12\x34\x56\x78\6\x32\0\0"))),
                 port_id);
}

std::string lines(MessageDecoder& decoder, const std::string& datagram) {
  std::string lines;
  for (const auto& message : decoder.decode(bytes(datagram))) {
    lines += message.subject == datapathctl::Subject::kOther ? "(" : "";
    lines += to_text(message, false) + "\n";
  }
  return lines;
}

TEST(MessageDecoderTest, TellsWhatAnAnswerIsAbout) {
  MessageDecoder decoder;
  const auto told = [](uint32_t sequence, uint16_t id) {
    return message(GENL_ID_CTRL, 0, sequence,
                   generic(CTRL_CMD_NEWFAMILY, attribute(CTRL_ATTR_FAMILY_ID, raw(id)) +
                                                   text(CTRL_ATTR_FAMILY_NAME, "TAVIK_WLAN")));
  };
  const auto answer = [](const std::string& request, int error, const std::string& attributes) {
    nlmsgerr payload{.error = error, .msg = {}};
    memcpy(&payload.msg, request.data(), sizeof(payload.msg));
    return message(NLMSG_ERROR, NLM_F_CAPPED | NLM_F_ACK_TLVS, payload.msg.nlmsg_seq,
                   raw(payload) + attributes);
  };
  EXPECT_EQ(lines(decoder, add_tuples(1)), "(family 28 command 1\n") << "of an unknown id";
  EXPECT_EQ(lines(decoder, told(0, kFamily)),
            "nlctrl NEWFAMILY FAMILY_ID 28, FAMILY_NAME \"TAVIK_WLAN\"\n");
  const std::string dump = message(kFamily, NLM_F_REQUEST, 7, generic(14, ""), 5);
  EXPECT_EQ(lines(decoder, add_tuples(7, 4) + dump),
            "ADD_TUPLES SELECTOR 1, TUPLES [\"ipv4 tcp 443\",\"ipv6 esp 0x12345678\"]\n"
            "GET_TUPLES\n");
  EXPECT_EQ(lines(decoder, answer(add_tuples(7, 4), -EINVAL,
                                  text(NLMSGERR_ATTR_MSG, "bad") +
                                      attribute(NLMSGERR_ATTR_OFFS, raw(uint32_t{52})))),
            "ERROR EINVAL ADD_TUPLES MSG \"bad\", TUPLES[1].TUPLE \"ipv6 esp 0x12345678\"\n");
  EXPECT_EQ(lines(decoder, answer(add_tuples(7, 4), -EINVAL,
                                  attribute(NLMSGERR_ATTR_MISS_TYPE, raw(uint32_t{2})))),
            "ERROR EINVAL ADD_TUPLES missing DEV\n");
  EXPECT_EQ(lines(decoder, answer(add_tuples(7, 4), -EINVAL,
                                  attribute(NLMSGERR_ATTR_OFFS, raw(uint32_t{28})) +
                                      attribute(NLMSGERR_ATTR_MISS_TYPE, raw(uint32_t{1})) +
                                      attribute(NLMSGERR_ATTR_MISS_NEST, raw(uint32_t{48})))),
            "ERROR EINVAL ADD_TUPLES TUPLES, missing TUPLES[1].TUPLE\n");
  EXPECT_EQ(lines(decoder, message(NLMSG_DONE, 0, 7, raw(-EINTR), 5)), "ERROR EINTR GET_TUPLES\n");
  EXPECT_EQ(lines(decoder, message(NLMSG_DONE, 0, 7, raw(0), 6)), "(DONE\n") << "of a third client";
  EXPECT_EQ(lines(decoder, answer(message(30, 0, 7, ""), 0, "")), "(ACK\n");
  EXPECT_EQ(lines(decoder, acknowledgement(9, INT32_MIN)), "(ERROR -2147483648\n");
  lines(decoder, told(1, 99));
  EXPECT_EQ(lines(decoder, add_tuples(8)), "(family 28 command 1\n") << "of a former id";
  EXPECT_EQ(lines(decoder, raw(nlmsghdr{17, 2, 0, 0, 0})), "(MALFORMED\n");
}

/// A capture of one packet, which was taken at the 2nd second and 500 ms.
std::string capture(uint32_t magic, const std::string& datagram,
                    uint16_t protocol = NETLINK_GENERIC, uint32_t link_type = 253) {
  const auto length = static_cast<uint32_t>(datagram.size() + 16);
  const uint32_t half = magic == 0xa1b2c3d4 ? 500'000 : 500'000'000;
  std::string file;
  for (const uint32_t word : {magic, 0x40002U, 0U, 0U, 65535U, link_type, 2U, half, length, length,
                              htonl(4U << 16 | 824), 0U, 0U, htonl(protocol)}) {
    file += raw(word);
  }
  return file + datagram;
}

TEST(ReadPacketsTest, ReadsOrRefusesACapture) {
  const std::string datagram = add_tuples(1);
  const std::string whole = capture(0xa1b2c3d4, datagram);
  const struct {
    std::string file;
    size_t count;
    const char* error;
  } kCases[] = {
      {whole, 1, ""},
      {capture(0xa1b23c4d, datagram), 1, ""},
      {capture(0xa1b2c3d4, datagram, NETLINK_ROUTE), 0, ""},
      {whole.substr(0, 23), 0, "the capture ends in its first header"},
      {whole.substr(0, whole.size() - 1), 0, "the capture ends in packet 1"},
      {whole + whole.substr(24, 15), 1, "the capture ends in packet 2"},
      {capture(0xa1b2c3d4, "", 0, 1), 0, "of link type 1 and not 253, NETLINK"},
      {capture(0xd4c3b2a1, datagram), 0,
       "in a format that is not read here; 'editcap -F pcap FILE NEW' converts it"},
  };
  for (const auto& [file, count, error] : kCases) {
    std::vector<Packet> packets;
    EXPECT_EQ(datapathctl::read_packets(file, &packets).error, error);
    EXPECT_EQ(packets.size(), count) << error;
    for (const Packet& packet : packets) {
      EXPECT_EQ(packet.datagram, bytes(datagram));
      EXPECT_EQ(packet.time->time_since_epoch(), std::chrono::milliseconds(2500));
    }
  }
}

TEST(ReadPacketsTest, ReadsHexadecimalAsItIsPrinted) {
  const std::vector<uint8_t> datagram = bytes(message(kFamily, 5, 1, generic(9, "")));
  for (const char* text :
       {"14000000 1c000500 01000000 00000000 09010000",
        "> RESET\n    bytes 14000000 1c000500 01000000 00000000 09010000\nDEAD end",
        R"({"seq":1,"bytes":"14000000 1c000500 01000000 00000000 09010000","pid":1})",
        "140000001c0005000100000000\r\n000000 09 01 00 00"}) {
    std::vector<Packet> packets;
    EXPECT_TRUE(datapathctl::read_packets(text, &packets).ok());
    ASSERT_EQ(packets.size(), 1U) << text;
    EXPECT_EQ(packets[0].datagram, datagram) << text;
  }
  std::vector<Packet> packets;
  EXPECT_TRUE(
      datapathctl::read_packets("bytes 01\nbytes 02\n03\n\n04\n0: 05\n06\n", &packets).ok());
  EXPECT_EQ(packets.size(), 4U);
}

}  // namespace
