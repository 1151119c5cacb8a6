#pragma once
// Puts a fresh tmpfs of the given size ("64k", "2g") over /dev/shm of this test's namespace;
// umount("/dev/shm") gives the earlier one back.
bool remount_shm(const char *size);
