#pragma once
// A mount namespace of this process's own, with an empty /dev/shm of 2 GB. When that is not allowed: says so, false.
bool private_shm();
// Puts a fresh tmpfs of the given size ("64k", "2g") over /dev/shm of this test's namespace;
// umount("/dev/shm") gives the earlier one back.
bool remount_shm(const char *size);
