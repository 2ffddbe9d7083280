// What the library's code takes from the C++ runtime, so that C programs link it without one. All
// of it stays inside the library's one object: a C++ program keeps its own.

#include <cstdlib>
#include <new>

// The handler of the program that the library is linked into, if that has C++ memory of its own.
extern "C" std::new_handler program_new_handler() __asm__("_ZSt15get_new_handlerv")
    __attribute__((weak));

// Missing memory is reported where the interface has a code for it; elsewhere the program's handler
// decides, and without one it ends here.
void *operator new(std::size_t size) {
  void *block = nullptr;
  while ((block = malloc(size == 0 ? 1 : size)) == nullptr) {
    const std::new_handler handler =
        program_new_handler == nullptr ? nullptr : program_new_handler();
    if (handler == nullptr) abort();
    handler();  // makes room, or does not return
  }
  return block;
}

void *operator new[](std::size_t size) {
  return operator new(size);
}

void operator delete(void *block) noexcept {
  free(block);
}

void operator delete(void *block, std::size_t) noexcept {
  free(block);
}

void operator delete[](void *block) noexcept {
  free(block);
}

void operator delete[](void *block, std::size_t) noexcept {
  free(block);
}

// Called by the standard containers when they are misused, which no input can make them be. The
// names are those of the functions in namespace std, which is not ours to add to.
extern "C" {
[[noreturn]] void throw_length_error() __asm__("_ZSt20__throw_length_errorPKc");
[[noreturn]] void throw_logic_error() __asm__("_ZSt19__throw_logic_errorPKc");
[[noreturn]] void throw_out_of_range() __asm__("_ZSt24__throw_out_of_range_fmtPKcz");
[[noreturn]] void throw_bad_array() __asm__("_ZSt28__throw_bad_array_new_lengthv");
[[noreturn]] void throw_bad_alloc() __asm__("_ZSt17__throw_bad_allocv");
}

void throw_length_error() {
  abort();
}

void throw_logic_error() {
  abort();
}

void throw_out_of_range() {
  abort();
}

void throw_bad_array() {
  abort();
}

void throw_bad_alloc() {
  abort();
}
