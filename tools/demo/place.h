// The demo's place in shared memory: leaves /dev/shm as it found it.
#pragma once

#include <string>

class Place
{
  public:
    Place(); // looks at what is there before the first store is made
    // Destroys the store, and, when the demo made them, the registry and the directories. Says
    // what it could not do; true when all is as before.
    bool restore(const std::string &uri);

  private:
    bool remove_registry();
    bool had_db_dir_, had_mu_dir_, had_registry_;
};
