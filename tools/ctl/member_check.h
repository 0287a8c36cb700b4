// Members of the files' objects that are not what they look like, whatever their meaning: keys that
// nobody reads, that stand twice or in another case, values of a type that is passed over, numbers
// that are cut. Pure.

#ifndef IPSLA_TOOLS_CTL_MEMBER_CHECK_H_
#define IPSLA_TOOLS_CTL_MEMBER_CHECK_H_

#include <string>
#include <vector>

#include "ctl/known_keys.h"
#include "ctl/remark.h"

namespace ipsla::ctl {

/// The remarks about the members of one object, in their order; `prefix` is put before their keys.
/// Nothing about what is no object. Keys that begin with "_" are taken for comments, and in a
/// file's root "$schema" is for editors.
[[nodiscard]] std::vector<Remark> MemberRemarks(const cJSON* object, KeyPlace place,
                                                const std::string& prefix = "");

/// The same for a task and all its objects that are read.
[[nodiscard]] std::vector<Remark> TaskMemberRemarks(const cJSON* task);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_MEMBER_CHECK_H_
