// SPDX-License-Identifier: GPL-3.0-or-later
#include <dlfcn.h>

#include <cstdlib>
#include <string>

#include "host/Files.h"
#include "host/IpmiBackend.h"

namespace Plexum {
namespace {

// Any object of the host library: dladdr on it names the file the library was loaded from.
const char kAnchor = 0;

// Where libmorvel_ipmi.so is: beside the host library, in the build tree as once installed.
std::string BackendPath() {
    Dl_info info{};
    if (::dladdr(&kAnchor, &info) != 0 && info.dli_fname != nullptr) {
        const std::string host = info.dli_fname;
        const size_t slash = host.rfind('/');
        if (slash != std::string::npos) {
            std::string directory = host.substr(0, slash);
            // Without the run path's "bin/../lib" detours, for the messages that name the file.
            if (char* const real = ::realpath(directory.empty() ? "/" : directory.c_str(), nullptr)) {
                directory = real;
                std::free(real);
            }
            return directory + (directory == "/" ? "" : "/") + IpmiBackend::kFileName;
        }
    }
    // No directory known: the loader's own search, which includes the host library's run path.
    return IpmiBackend::kFileName;
}

IpmiBackendLoad Load() {
    IpmiBackendLoad load;
    const std::string path = BackendPath();
    void* const handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        load.error = "cannot load " + path + ": " + LoadFailure(path);
        return load;
    }
    ::dlerror();
    using Entry = const IpmiBackend* (*)();
    const auto entry = reinterpret_cast<Entry>(::dlsym(handle, IpmiBackend::kEntryPoint));
    const IpmiBackend* const backend = entry != nullptr ? entry() : nullptr;
    if (backend == nullptr || backend->abiVersion != IpmiBackend::kAbiVersion) {
        load.error = "cannot load " + path + ": " +
                     (entry == nullptr ? std::string("no ") + IpmiBackend::kEntryPoint : std::string("wrong version"));
        ::dlclose(handle);
        return load;
    }
    // The library stays loaded for the life of the process: sessions and their contexts live in it,
    // and a set-up that failed halfway may have left its crypto libraries hooked up.
    const int setUp = backend->rmcpplusInit();
    if (setUp != 0) {
        load.error = "cannot set up FreeIPMI from " + path + ": ipmi_rmcpplus_init returned " + std::to_string(setUp);
        // cppcheck-suppress resourceLeak  ; the handle is never closed, on purpose (above)
        return load;
    }
    load.backend = backend;
    // cppcheck-suppress resourceLeak  ; the handle is never closed, on purpose (above)
    return load;
}

}  // namespace

const IpmiBackendLoad& LoadIpmiBackend() {
    // A function's static is made once, by the first caller; concurrent callers wait for it.
    static const IpmiBackendLoad load = Load();
    return load;
}

}  // namespace Plexum
