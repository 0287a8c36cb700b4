#include "udp/control_phase_message.h"

#include <algorithm>
#include <utility>

#include <gtest/gtest.h>

#include "support/bytes.h"
#include "support/golden_requests.h"
#include "support/udp_task.h"

namespace ipsla {
namespace {

using test::FromHex;
using test::ToHex;
using test::UdpTask;

SlaTaskConfig TaskOf(const test::GoldenRequest& golden) {
  SlaTaskConfig task = UdpTask();
  task.sla_type = golden.type;
  task.auth.mode = golden.mode;
  task.auth.algorithm = golden.algorithm;
  task.auth.key_id = golden.key_id;
  return task;
}

// A message whose every byte differs from its neighbours.
std::vector<std::uint8_t> CountingBytes() {
  std::vector<std::uint8_t> bytes(kControlMessageSize);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i + 1);
  return bytes;
}

TEST(BuildControlRequest, GivesTheGoldenBytesOfEveryTypeAndMode) {
  for (const test::GoldenRequest& golden : test::kGoldenRequests) {
    SCOPED_TRACE(golden.name);
    // Nonce and digest are not filled by the builder.
    std::vector<std::uint8_t> expected = FromHex(golden.hex);
    std::fill_n(expected.begin() + kNonceOffset, kNonceSize + kDigestSize, std::uint8_t{0});
    EXPECT_EQ(ToHex(EncodeControlMessage(BuildControlRequest(TaskOf(golden)))), ToHex(expected));
  }
}

TEST(BuildControlRequest, CarriesNonceAndDigestWhereTheGoldenBytesHaveThem) {
  for (const test::GoldenRequest& golden : test::kGoldenRequests) {
    SCOPED_TRACE(golden.name);
    const std::vector<std::uint8_t> expected = FromHex(golden.hex);
    ControlPhaseMessage request = BuildControlRequest(TaskOf(golden));
    std::copy_n(expected.begin() + kNonceOffset, kNonceSize, request.nonce.begin());
    std::copy_n(expected.begin() + kDigestOffset, kDigestSize, request.digest.begin());
    EXPECT_EQ(ToHex(EncodeControlMessage(request)), golden.hex);
  }
}

TEST(BuildControlRequest, DurationOfTenProbesAtTwentyMillisecondsIs1270) {
  const ControlMessageBytes bytes = EncodeControlMessage(BuildControlRequest(UdpTask()));
  EXPECT_EQ(ToHex(std::span(bytes).subspan(168)), "000004f6");
}

TEST(BuildControlRequest, LeavesNonceAndDigestZeroWithoutAuthentication) {
  const ControlMessageBytes bytes = EncodeControlMessage(BuildControlRequest(UdpTask()));
  EXPECT_TRUE(std::all_of(bytes.begin() + 32, bytes.begin() + 80,
                          [](std::uint8_t byte) { return byte == 0; }));
}

TEST(BuildControlRequest, ReservedBytesAreZero) {
  constexpr std::pair<std::size_t, std::size_t> kReserved[] = {
      {1, 1}, {4, 7}, {12, 19}, {30, 30}, {91, 91}, {92, 95}, {162, 163}};
  for (const test::GoldenRequest& golden : test::kGoldenRequests) {
    const ControlMessageBytes bytes = EncodeControlMessage(BuildControlRequest(TaskOf(golden)));
    for (const auto& [first, last] : kReserved) {
      for (std::size_t i = first; i <= last; ++i) {
        EXPECT_EQ(bytes[i], 0) << golden.name << " byte " << i;
      }
    }
  }
}

TEST(BuildControlRequest, ReportsAPortOfTheSystemsChoiceAsItIsHeldNow) {
  SlaTaskConfig task = UdpTask();
  task.control_phase.src.sin_port = 0;
  task.measurement.src.sin_port = htons(65535);
  const ControlMessageBytes bytes = EncodeControlMessage(BuildControlRequest(task));
  EXPECT_EQ(ToHex(std::span(bytes).subspan(160, 8)), "00000000ffffc35a");
}

TEST(SessionDuration, WrapsInUnsigned32Bits) {
  struct Row {
    std::int32_t interval, count, timeout;
    std::uint32_t expected;
  };
  constexpr Row kRows[] = {
      {20, 10, 1000, 1270},   {0, 0, 0, 0},
      {1, 1, 1, 9},           {60000, 100000, 5000, 1705737704U},  // 6000705000 - 2^32
      {2147483647, 2, 0, 12},                                      // 4294967308 - 2^32
      {-1, 1, 0, 6},          {2147483647, 2147483647, 2147483647, 4294967289U},
  };
  for (const Row& row : kRows) {
    SlaTaskConfig task;
    task.interval = row.interval;
    task.num_packets = row.count;
    task.timeout = row.timeout;
    EXPECT_EQ(SessionDuration(task), row.expected)
        << row.interval << " " << row.count << " " << row.timeout;
  }
}

TEST(SessionMs, DoesNotWrap) {
  SlaTaskConfig task;
  task.interval = 60000;
  task.num_packets = 100000;
  task.timeout = 5000;
  EXPECT_EQ(PlainRunMs(task), 6000005000);
  EXPECT_EQ(SessionMs(task), 6000705000);
}

TEST(DecodeControlMessage, ReadsEveryFieldAtItsOffset) {
  const ControlPhaseMessage message = DecodeControlMessage(CountingBytes());
  EXPECT_EQ(message.version, 0x01);
  EXPECT_EQ(static_cast<unsigned>(message.status), 0x0304U);
  EXPECT_EQ(message.sequence_number, 0x05060708U);
  EXPECT_EQ(message.total_length, 0x090a0b0cU);
  EXPECT_EQ(message.sender_timestamp, 0x0d0e0f10U);
  EXPECT_EQ(static_cast<unsigned>(message.auth_command), 0x1516U);
  EXPECT_EQ(static_cast<unsigned>(message.auth_status), 0x1718U);
  EXPECT_EQ(message.auth_length, 0x191a1b1cU);
  EXPECT_EQ(static_cast<unsigned>(message.auth_mode), 0x1dU);
  EXPECT_EQ(static_cast<unsigned>(message.auth_algorithm), 0x1eU);
  EXPECT_EQ(message.key_id, 0x20);
  EXPECT_EQ(ToHex(message.nonce), "2122232425262728292a2b2c2d2e2f30");
  EXPECT_EQ(ToHex(message.digest),
            "3132333435363738393a3b3c3d3e3f404142434445464748494a4b4c4d4e4f50");
  EXPECT_EQ(static_cast<unsigned>(message.measurement_command), 0x5152U);
  EXPECT_EQ(static_cast<unsigned>(message.measurement_status), 0x5354U);
  EXPECT_EQ(message.measurement_length, 0x55565758U);
  EXPECT_EQ(static_cast<unsigned>(message.address_type), 0x59U);
  EXPECT_EQ(static_cast<unsigned>(message.role), 0x5aU);
  EXPECT_EQ(message.operation_type, 0x5b);
  EXPECT_EQ(message.session_id, 0x5d5e5f60U);
  EXPECT_EQ(ntohl(message.control_sender_address.s_addr), 0x61626364U);
  EXPECT_EQ(ntohl(message.control_responder_address.s_addr), 0x71727374U);
  EXPECT_EQ(ntohl(message.measurement_sender_address.s_addr), 0x81828384U);
  EXPECT_EQ(ntohl(message.measurement_responder_address.s_addr), 0x91929394U);
  EXPECT_EQ(message.control_sender_port, 0xa1a2);
  EXPECT_EQ(message.control_responder_port, 0xa3a4);
  EXPECT_EQ(message.measurement_sender_port, 0xa5a6);
  EXPECT_EQ(message.measurement_responder_port, 0xa7a8);
  EXPECT_EQ(message.duration_ms, 0xa9aaabacU);
}

TEST(DecodeControlMessage, IsUndoneByEncodingButForUnusedBytes) {
  std::vector<std::uint8_t> expected = CountingBytes();
  const auto clear = [&expected](std::size_t first, std::size_t last) {
    std::fill(expected.begin() + static_cast<std::ptrdiff_t>(first),
              expected.begin() + static_cast<std::ptrdiff_t>(last) + 1, std::uint8_t{0});
  };
  clear(1, 1);
  clear(16, 19);
  clear(30, 30);
  clear(91, 91);
  for (const std::size_t address : {96U, 112U, 128U, 144U}) clear(address + 4, address + 15);
  EXPECT_EQ(ToHex(EncodeControlMessage(DecodeControlMessage(CountingBytes()))), ToHex(expected));
}

TEST(DecodeControlMessage, ReadsBytesThatWereNotReceivedAsZero) {
  const std::vector<std::uint8_t> whole = CountingBytes();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const std::vector<std::uint8_t> received(whole.begin(),
                                             whole.begin() + static_cast<std::ptrdiff_t>(length));
    std::vector<std::uint8_t> padded = received;
    padded.resize(kControlMessageSize, 0);
    ASSERT_EQ(ToHex(EncodeControlMessage(DecodeControlMessage(received))),
              ToHex(EncodeControlMessage(DecodeControlMessage(padded))))
        << length;
  }
}

TEST(DecodeControlMessage, IgnoresBytesBehindTheMessage) {
  std::vector<std::uint8_t> longer = CountingBytes();
  longer.resize(200, 0xee);
  EXPECT_EQ(ToHex(EncodeControlMessage(DecodeControlMessage(longer))),
            ToHex(EncodeControlMessage(DecodeControlMessage(CountingBytes()))));
}

}  // namespace
}  // namespace ipsla
