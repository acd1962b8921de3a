//  The expected table of size classes, read from a file in tests/data.
#ifndef SIZE_CLASSES_H
#define SIZE_CLASSES_H

#include <cstddef>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

struct size_row {
    uint32_t blksize;
    uint32_t blkperheap;
    size_t heap_bytes;
    uint32_t first_blocks;
    size_t first_bytes;
    bool at_start;
};

inline std::vector<size_row> read_size_classes() {
    std::ifstream file(TEST_DATA "/size_classes.txt");
    std::vector<size_row> rows;
    for (std::string line; std::getline(file, line);) {
        size_row row;
        std::istringstream fields(line);
        if (fields >> row.blksize >> row.blkperheap >> row.heap_bytes >> row.first_blocks >> row.first_bytes >>
            row.at_start)
            rows.push_back(row);
    }
    return rows;
}

#endif
