// Placeholder entry point until the daemon's start-up lands.
#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    (void)argc;
    printf("Usage: %s [options]\n", argv[0]);
    return 0;
}
