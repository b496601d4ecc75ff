/*
 * Prints how long it takes to load a library and to unload it, in nanoseconds:
 *
 *   load_time [LOADED_BEFORE...] LIBRARY
 */
#include <dlfcn.h>
#include <stdio.h>
#include <time.h>

static void* load(const char* path) {
  void* library = dlopen(path, RTLD_NOW);
  if (library == NULL) {
    fprintf(stderr, "load_time: %s\n", dlerror());
  }
  return library;
}

int main(int argc, char** argv) {
  struct timespec start;
  struct timespec end;
  for (int i = 1; i < argc - 1; ++i) {
    if (load(argv[i]) == NULL) {
      return 1;
    }
  }
  clock_gettime(CLOCK_MONOTONIC, &start);
  void* library = load(argv[argc - 1]);
  if (library == NULL || dlclose(library) != 0) {
    return 1;
  }
  clock_gettime(CLOCK_MONOTONIC, &end);
  printf("%lld\n", (end.tv_sec - start.tv_sec) * 1000000000LL + end.tv_nsec - start.tv_nsec);
  return 0;
}
