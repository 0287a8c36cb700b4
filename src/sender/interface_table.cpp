#include "sender/interface_table.h"

namespace ipsla {

std::optional<InterfaceRecord> InterfaceTable::Find(const boost::asio::ip::address& address,
                                                    const std::string& vrf_key) const {
  const MutexLock lock(mutex_);
  const auto found = records_.find({address, vrf_key});
  if (found == records_.end()) return std::nullopt;
  return found->second;
}

void InterfaceTable::Set(const boost::asio::ip::address& address, const std::string& vrf_key,
                         InterfaceRecord record) {
  const MutexLock lock(mutex_);
  records_.insert_or_assign({address, vrf_key}, std::move(record));
}

void InterfaceTable::Erase(const boost::asio::ip::address& address, const std::string& vrf_key,
                           std::int32_t index) {
  const MutexLock lock(mutex_);
  const auto found = records_.find({address, vrf_key});
  if (found != records_.end() && found->second.index == index) records_.erase(found);
}

void InterfaceTable::SetFlags(const std::string& vrf_key, std::int32_t index, std::int32_t flags) {
  const MutexLock lock(mutex_);
  for (auto& [key, record] : records_) {
    if (key.second == vrf_key && record.index == index) record.flags = flags;
  }
}

void InterfaceTable::EraseInterface(const std::string& vrf_key, std::int32_t index) {
  const MutexLock lock(mutex_);
  std::erase_if(records_, [&](const auto& entry) {
    return entry.first.second == vrf_key && entry.second.index == index;
  });
}

void InterfaceTable::EraseVrf(const std::string& vrf_key) {
  const MutexLock lock(mutex_);
  std::erase_if(records_, [&](const auto& entry) { return entry.first.second == vrf_key; });
}

std::map<boost::asio::ip::address, InterfaceRecord> InterfaceTable::OfVrf(
    const std::string& vrf_key) const {
  const MutexLock lock(mutex_);
  std::map<boost::asio::ip::address, InterfaceRecord> result;
  for (const auto& [key, record] : records_) {
    if (key.second == vrf_key) result.emplace(key.first, record);
  }
  return result;
}

}  // namespace ipsla
