#include "check/store_image.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

std::string object_path(const std::string &dbname, int obj_t)
{
    static const char *const suffix[] = {"", "_md1", "_md2", "_ud1", "_ud2", "", "_md_txn"};
    return (obj_t == OBJ_SN ? SHKV_DB_DIR "/" : SHKV_MU_DIR "/") + dbname + suffix[obj_t];
}

static void read_object(const std::string &path, object_image *obj_p)
{
    *obj_p = {};
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    struct stat st;
    if (fd < 0)
        return;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        obj_p->present = true;
        constexpr uint64_t most = 1ull << 32; // what offsets of 32 bits reach
        obj_p->file_sz = std::min((uint64_t)st.st_size, most);
        obj_p->bytes.resize(obj_p->file_sz);
        size_t got = 0;
        while (got < obj_p->bytes.size()) {
            ssize_t part = pread(fd, obj_p->bytes.data() + got, obj_p->bytes.size() - got, (off_t)got);
            if (part <= 0)
                break;
            got += (size_t)part;
        }
        obj_p->bytes.resize(got);
        obj_p->file_sz = got; // less than fstat said when someone cut it meanwhile
    }
    close(fd);
}

bool load_store(const std::string &dbname, store_image *image_p)
{
    image_p->dbname = dbname;
    // The supernode last: what it says of the others is then never older than they are.
    for (int obj_t : {OBJ_MD1, OBJ_MD2, OBJ_MD_TXN, OBJ_UD1, OBJ_UD2, OBJ_SN})
        read_object(object_path(dbname, obj_t), &image_p->objs[obj_t]);
    return image_p->objs[OBJ_SN].present;
}

std::vector<std::string> list_stores()
{
    std::vector<std::string> names;
    if (DIR *dir = opendir(SHKV_DB_DIR)) {
        while (const dirent *entry = readdir(dir))
            if (entry->d_name[0] != '.')
                names.push_back(entry->d_name);
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}
