// UDP probes and replies, and the calculations on whatever replies claim. The input is a sequence
// of 32-byte replies.

#include <algorithm>
#include <span>
#include <vector>

#include "fuzz_target.h"
#include "sender/sender_metric_funcs.h"
#include "udp/probe_message.h"

namespace {

constexpr std::size_t kReply = 32;
constexpr std::size_t kMaxRecords = 64;

std::vector<ipsla::SlaPacketRecord> Records(std::span<const std::uint8_t> input) {
  std::vector<ipsla::SlaPacketRecord> records;
  for (std::size_t at = 0; at < input.size() && records.size() < kMaxRecords; at += kReply) {
    const auto reply = ipsla::DecodeReply(input.subspan(at, std::min(kReply, input.size() - at)));
    ipsla::SlaPacketRecord record;
    record.id = static_cast<std::uint32_t>(records.size());
    record.state = static_cast<ipsla::SlaPacketState>(reply.type % 3);
    record.ss = static_cast<std::uint32_t>(records.size() + 1);
    record.rs = reply.counter;
    record.remote_receive_stamp = reply.stamp;
    record.remote_transmit_stamp = reply.stamp;
    record.send_stamp = reply.sequence;
    record.receive_stamp = reply.stamp % 8640000000000;
    record.ntp_t2 = reply.ntp_first;
    record.ntp_t3 = reply.ntp_second;
    records.push_back(record);
  }
  return records;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ipsla;
  const auto input = fuzz::Exactly(data, size);
  for (const auto type :
       {SlaTestType::kUdpEcho, SlaTestType::kUdpJitter, SlaTestType::kUdpJitterNtp}) {
    static_cast<void>(ProbeSequence(type, input));
    auto reply = input;
    EncodeReply(type, {.sequence = 1, .counter = 2, .receive_stamp = 3, .ntp_receive = 4}, reply);
    fuzz::Require(reply.size() == input.size(), "a reply is as long as its probe");
  }
  auto records = Records(input);
  if (records.empty()) return 0;
  for (const bool ntp : {false, true}) {
    SlaTaskMetrics metrics;
    ResetMetrics(SlaTestType::kUdpJitter, &metrics);
    auto copy = records;
    CalcJitterMetrics(1, copy, &metrics, records.front().rs, 1000, ntp);
  }
  SlaTaskMetrics echo;
  CalcEchoMetric(1, records, &echo);
  SlaTaskMetrics icmp;
  CalcIcmpMetric(1, records, &icmp);
  return 0;
}
