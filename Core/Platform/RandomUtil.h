#pragma once

namespace Zel {
namespace Core {

// Random bytes from the kernel's non-blocking pool.
class RandomUtil {
public:
    // Fills `buf` with `n` bytes from "/dev/urandom"; false (logged) when the
    // device cannot be opened or delivers fewer bytes.
    static bool GetBytes(void* buf, unsigned n);

    // The same, from any readable source; GetBytes reads "/dev/urandom" through it.
    static bool ReadBytes(const char* path, void* buf, unsigned n);
};

}  // namespace Core
}  // namespace Zel
