#pragma once

// A unit of work run by an OrvWorkQueue.
class OrvWork {
  public:
    OrvWork(const char* name, bool deleteAfterRun) : mName(name), mDeleteAfterRun(deleteAfterRun) {}
    virtual void execute() = 0;
    virtual ~OrvWork() {}

    const char* getName() const { return mName; }
    bool isDeleteAfterRun() const { return mDeleteAfterRun; }

  protected:
    const char* mName;  // static text
    bool mDeleteAfterRun;
};
