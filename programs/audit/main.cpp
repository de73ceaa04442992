#include <string>
#include <vector>

#include "audit/Commands.h"

int main(int argc, char** argv) {
    return qel::programs::runAudit(std::vector<std::string>(argv + 1, argv + argc));
}
