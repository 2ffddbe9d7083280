// The metrics command: prints OpenMetrics text for a node exporter's text collector.

#ifndef BH_TOOLS_BHCTL_METRICS_H_
#define BH_TOOLS_BHCTL_METRICS_H_

#include "tools/bhctl/options.h"

namespace bhctl {

// Optional argument --partition: a path on the appliances, for its file system. Returns the
// program's exit status.
int Metrics(const Options &options);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_METRICS_H_
