/* A library that takes of the thread-local storage which a process has ready made for libraries
 * that it loads later. Where there is no more of it, it cannot be loaded. */
__attribute__((tls_model("initial-exec"))) __thread char storage[STORAGE];
char* storage_of_thread(void);
char* storage_of_thread(void) { return storage; }
