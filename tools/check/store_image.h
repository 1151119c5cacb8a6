// A copy of a store's six objects, taken by plain reads: nothing is mapped, no lock is taken, no
// page of a sparse object is made, and no content of a store can harm the reader.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "shkv_format.h"

struct object_image {
    bool present = false;
    uint64_t file_sz = 0;
    std::vector<uint8_t> bytes;

    // The record of type T at off, or null when it does not lie whole inside the object.
    template <typename T> const T *at(uint64_t off) const
    {
        return off + sizeof(T) <= bytes.size() && off % alignof(uint32_t) == 0
                   ? reinterpret_cast<const T *>(bytes.data() + off)
                   : nullptr;
    }
};

struct store_image {
    std::string dbname;
    object_image objs[7]; // by OBJ_*; the supernode at OBJ_SN

    const supernode *sn() const
    {
        return objs[OBJ_SN].at<supernode>(0);
    }
};

// Where an object lies in the file system.
std::string object_path(const std::string &dbname, int obj_t);

// Reads what is there. False when there is no supernode of this name.
bool load_store(const std::string &dbname, store_image *image_p);

// The names of all supernodes, sorted.
std::vector<std::string> list_stores();
