// The lines about a configuration file that is no use as a whole.

#ifndef IPSLA_CONFIG_FILE_FAULT_LOG_H_
#define IPSLA_CONFIG_FILE_FAULT_LOG_H_

#include "config/config_file.h"

namespace ipsla {

/// Logs (debug, id 0) why a file could not be read or parsed; `what` names it in the line of an
/// empty file name. Nothing for kNone and kNoArray, of which each reader has its own line.
void LogFileFault(const ConfigFile& file, const char* what);

}  // namespace ipsla

#endif  // IPSLA_CONFIG_FILE_FAULT_LOG_H_
