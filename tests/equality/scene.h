// The mail server in the sandbox on which both programs run, one after the other.

#pragma once

#include <map>
#include <string>

#include "tests/faults/world/snapshot.h"

namespace corvo::equality {

/// Whatever else than the tree is compared, by its name: "standard error", "status".
using Facts = std::map<std::string, std::string>;

/// How a run ended.
struct Ending {
    faults::Tree tree;  // STORAGE, and the folders of the databases below "databases/"
    Facts facts;
};

/// Mail storage and what stands beside it.
inline const std::string STORAGE = "/var/qmail";

class Scene {
public:
    /// Installs the mail server; needs a sandbox in its first state.
    Scene();
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;
    ~Scene() = default;

    /// A mail server with all its means and without mail.
    void clear();

    /// Remembers all as it is: types, owners, modes, contents and second names.
    static void remember();

    /// Brings back what was remembered.
    static void putBack();

    /// Runs a program over what is there, on a storage that may be read-only.
    static Ending run(const std::string& program, const std::string& mode, bool isReadOnly);

    /// The tree as it is.
    static faults::Tree tree();

    /// "quota rows" and "handler rows", a line each, as they are.
    static Facts rows();

private:
    std::string accounts_;
};

}  // namespace corvo::equality
