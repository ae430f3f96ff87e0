#include "tools/orvpolicy/OrvPolicyApp.h"

int main(int argc, char** argv) {
    OrvPolicyApp app;
    return app.run(argc, argv);
}
