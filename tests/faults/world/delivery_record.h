// What the delivery files of a scene have looked like in the course of a run.

#pragma once

#include <vector>

#include "tests/faults/world/delivery_scene.h"

namespace corvo::faults {

/// Kept in a file, so that a child of this process can note what its parent reads.
class DeliveryRecord {
public:
    /// Begins anew.
    explicit DeliveryRecord(const DeliveryScene& scene);

    /// The state of this moment, unless it is the one noted last.
    void note();

    /// All states, the first one first.
    std::vector<Tree> states() const;

private:
    const DeliveryScene& scene_;
    Tree last_;
};

}  // namespace corvo::faults
