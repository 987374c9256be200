/* A library of the program's own: its constructor runs before anything can be traced. */
static int half_of(int n) { return n / 2; }

int part_of(int n) { return half_of(n) + 1; }

__attribute__((constructor)) static void prepare_part(void) { part_of(2); }
