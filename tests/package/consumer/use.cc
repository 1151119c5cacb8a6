// The same in C++.
#include <iostream>
#include <shkv.hpp>

int main()
{
    auto store = shkv::store::create("consumer", 0);
    if (!store || store->add("key", "value") != shkv::status::ok)
        return 1;
    std::cout << "C++: " << store->get("key").value_or("nothing") << std::endl;
    return store->destroy() == shkv::status::ok ? 0 : 1;
}
