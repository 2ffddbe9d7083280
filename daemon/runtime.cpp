// With lib/runtime.cpp all that the daemon's code takes from the C++ runtime, which the appliance
// does not have: the daemon is linked with the C library alone. Whatever else it comes to need of
// C++ fails at the link.

#include <new>

extern "C" {
std::new_handler set_handler(std::new_handler handler) __asm__("_ZSt15set_new_handlerPFvvE");
std::new_handler get_handler() __asm__("_ZSt15get_new_handlerv");
}

static std::new_handler without_memory = nullptr;

std::new_handler set_handler(std::new_handler handler) {
  const std::new_handler before = without_memory;
  without_memory = handler;
  return before;
}

std::new_handler get_handler() {
  return without_memory;
}
