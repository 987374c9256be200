/* A host with POSIX semaphores, and with functions of its own that bear names of the agent's. Were
 * one of those visible in the agent, it would be called here, or by the agent in its own place. */
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <unistd.h>

static sem_t semaphore;
static int posted;

static void* post(void* unused) {
  usleep(20000);
  posted = 1;
  sem_post(&semaphore);
  return unused;
}

#define OWN(name) \
  int name(void); \
  int name(void) { return __LINE__; }
OWN(open_log)
OWN(is_full)
OWN(is_empty)
OWN(get_date)
OWN(check_day)
OWN(start_th_job)
OWN(depth)
OWN(th)

int main(void) {
  pthread_t thread;
  sem_init(&semaphore, 0, 0);
  pthread_create(&thread, NULL, post, NULL);
  if (sem_wait(&semaphore) != 0 || !posted) return 1;
  pthread_join(thread, NULL);
  puts(open_log() != is_full() && is_empty() != depth() ? "ours" : "theirs");
  return 0;
}
