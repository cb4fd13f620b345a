// A program that writes to corvo::uerr before main() begins and after it has ended. Linked first,
// so that nothing of the library is made before it.

#include "utils/error_stream.h"

namespace {

class Early {
public:
    Early() { corvo::uerr << "before main" << std::endl; }
    ~Early() { corvo::uerr << "after main"; }
    Early(const Early&) = delete;
    Early& operator=(const Early&) = delete;
};

const Early early;

}  // namespace

int main() {
    corvo::uerr << "in main" << std::endl;
}
