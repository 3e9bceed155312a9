/* A program outside the project: checks a file for a trailer and prints the
 * names of its entries, one a line. Exit 1 when the file has none. */
#include <stdio.h>

#include <yax_api.h>

int main(int argc, char **argv) {
    YAXDATA *yax = argc == 2 ? checkYAXWithReadPM(argv[1]) : NULL;
    if (yax == NULL) {
        fprintf(stderr, "no trailer\n");
        return 1;
    }
    for (uint32_t i = 0; i < yax->count; i++) printf("%s\n", yax->YAX_name_list[i]);
    destroyYAXDATA(yax);
    return 0;
}
