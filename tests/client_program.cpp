// A program outside the tree that asks for the MAC address of an appliance with the installed
// client library. Its exit status tells whether that is what it was given.

#include <client/acp_client.h>

#include <cstdio>

int main(int argc, char **argv) {
  std::vector<acp::Appliance> found;
  const acp::Outcome outcome = acp::Discover({}, found);
  fprintf(stderr, "%s\n", outcome.message.c_str());
  return argc == 2 && found.size() == 1 && acp::MacText(found[0].answer.mac) == argv[1] ? 0 : 1;
}
