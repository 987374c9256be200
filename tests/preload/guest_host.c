/* A host that loads the agent while it runs, and does with it what hosts do: guest_host LIBVARN
 * MODE [LIBRARY...]. Prints the code of TRAN_INIT. */
#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int (*tran_init)(void);
static int (*tran_info)(int, const char*, int, const char*, int, const char*, int, const char*, int,
                        const char*, int, const char*, int, const char*, int, const char*, int);

static void* trace(void* endlessly) {
  do tran_info(-1, NULL, 0, NULL, 0, NULL, 0, NULL, 0, NULL, 0, NULL, 0, NULL, 0, "at work", -1);
  while (endlessly != NULL);
  return NULL;
}

static void start_threads(int count) {
  pthread_t thread;
  while (count-- > 0) pthread_create(&thread, NULL, trace, (void*)"endlessly");
}

int main(int argc, char** argv) {
  const char* const mode = argc > 2 ? argv[2] : "";
  int refused = 0;
  for (int i = 3; i < argc; ++i) refused += dlopen(argv[i], RTLD_NOW) == NULL;
  if (argc > 3 && refused == 0) return fputs("there is storage left\n", stderr), 1;
  void* const library = dlopen(argv[1], RTLD_NOW);
  if (library == NULL) return fputs(dlerror(), stderr), 1;
  *(void**)&tran_init = dlsym(library, "TRAN_INIT");
  *(void**)&tran_info = dlsym(library, "TRAN_INFO");

  printf("%d\n", tran_init());
  fflush(stdout);
  if (strcmp(mode, "exit") == 0) {
    start_threads(4);
    usleep((useconds_t)getpid() % 3000);
    exit(0); /* with threads in the middle of anything */
  }
  trace(NULL);
  if (strcmp(mode, "unload") == 0) {
    dlclose(library);
    usleep(700 * 1000); /* while the agent's own thread wakes up, twice */
  }
  return 0;
}
