#include <cstdio>

int main(int argc, char** argv) {
    (void)argc;
    (void)argv;
    std::fputs("usage: velquin [--analyze FILE [RANGE] | --timeline FILE | --chroma FILE OUT.csv]\n", stderr);
    return 0;
}
