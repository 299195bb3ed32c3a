/* SPDX-License-Identifier: Apache-2.0 */
/* copy_file FROM TO SIZE: copies a file with reads and writes of SIZE bytes. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const int from = open(argv[1], O_RDONLY);
    const int to = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0666);
    const size_t size = strtoul(argv[3], NULL, 10);
    char* buffer = malloc(size);
    if (from < 0 || to < 0 || buffer == NULL) {
        perror("copy_file");
        return 1;
    }
    ssize_t got;
    while ((got = read(from, buffer, size)) > 0) {
        if (write(to, buffer, (size_t)got) != got) {
            perror("copy_file");
            return 1;
        }
    }
    free(buffer);
    return got < 0 || close(to) != 0;
}
