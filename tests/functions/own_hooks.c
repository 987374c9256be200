/* A program that profiles itself: its hooks are not taken from it. */
#include <stdio.h>

int part_of(int n);

static int calls;

__attribute__((no_instrument_function)) void __cyg_profile_func_enter(void* this_fn,
                                                                      void* call_site) {
  (void)this_fn, (void)call_site;
  ++calls;
}

__attribute__((no_instrument_function)) void __cyg_profile_func_exit(void* this_fn,
                                                                     void* call_site) {
  (void)this_fn, (void)call_site;
}

int main(void) {
  part_of(4);
  printf("%d calls\n", calls);
  return 0;
}
