#pragma once
// "orvctl verify [POLICY]": the value each node and property should hold for the application
// and state orvd is in, worked out by the simulator, compared with what the device holds.
#include <string>
#include <vector>

class OrvCtlApp;

class OrvCtlVerify {
  public:
    explicit OrvCtlVerify(OrvCtlApp& app) : mApp(app) {}
    // 0 everything as the policy wants, 1 differences, else orvctl's failure codes.
    int run(const std::vector<std::string>& args);

    // The events that take a fresh orvd from reset to `state` of `app`, in orvctl's words.
    static std::vector<std::vector<std::string>> pathTo(const std::string& app,
                                                        const std::string& state, int pid,
                                                        int glTid);

  private:
    OrvCtlApp& mApp;
};
