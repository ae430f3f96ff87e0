#include "tools/orvctl/OrvCtlApp.h"

int main(int argc, char** argv) {
    OrvCtlApp app;
    return app.run(argc, argv);
}
