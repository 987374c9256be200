/* Ways for a program to go on and to end, by the name of its argument. */
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

int part_of(int n);

static void work(void) { part_of(8); }

static void at_exit(void) {}

static void end_by_exit(void) {
  work();
  exit(4);
}

static void end_by_signal(void) {
  work();
  raise(SIGSEGV);
}

static void in_child(void) { exit(0); }

static void fork_and_wait(void) {
  const pid_t pid = fork();
  if (pid == 0) in_child();
  waitpid(pid, NULL, 0);
  work();
}

static void replace_by_true(void) { execl("/bin/true", "true", (char*)NULL); }

static void run_shell(void) {
  if (system("/bin/true && echo shell || exit 1") != 0) exit(1);
  work();
}

static void* in_thread(void* ends_process) {
  work();
  if (ends_process != NULL) exit(5);
  return NULL;
}

static void start_thread(void* ends_process) {
  pthread_t thread;
  pthread_create(&thread, NULL, in_thread, ends_process);
  pthread_join(thread, NULL);
}

int main(int argc, char** argv) {
  const char* const scenario = argc > 1 ? argv[1] : "";
  char ends_process;
  atexit(at_exit);
  if (strcmp(scenario, "return") == 0) work();
  if (strcmp(scenario, "exit") == 0) end_by_exit();
  if (strcmp(scenario, "signal") == 0) end_by_signal();
  if (strcmp(scenario, "fork") == 0) fork_and_wait();
  if (strcmp(scenario, "exec") == 0) replace_by_true();
  if (strcmp(scenario, "shell") == 0) run_shell();
  if (strcmp(scenario, "thread") == 0) start_thread(NULL);
  if (strcmp(scenario, "exit in thread") == 0) start_thread(&ends_process);
  return 3;
}
