// /etc/hosts: the line with the appliance's own address and name, kept at the file's end.

#ifndef BH_LIB_HOSTS_H_
#define BH_LIB_HOSTS_H_

#include <netinet/in.h>

#include <string>
#include <string_view>

// Reads what does not mention `name` anywhere into `kept`; an empty name is mentioned nowhere.
// Returns 0, or the errno of the failed read.
int ReadOtherHosts(std::string_view name, std::string &kept);

// Writes `kept` and behind it the line of `address` (network byte order) and `name`. Returns 0, or
// the errno of the failed open or write.
int WriteHosts(std::string kept, in_addr address, std::string_view name);

#endif  // BH_LIB_HOSTS_H_
