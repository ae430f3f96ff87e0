// "ioctl" and "orv_ioctl" requests and argument bytes, recorded without a driver.
#include <errno.h>

#include <set>
#include <tuple>

#include "PolicyTestSupport.h"
#include "policy/methods/OrvDevice.h"

namespace {

// The system, but the ioctls on one regular file are recorded instead of issued.
class IoctlRecorder : public OrvDevice {
  public:
    struct Call {
        int fd;
        uint32_t request;
        bool nullArg;
        std::string arg;  // text up to its NUL, or the first `bytes` bytes of the argument
    };

    // Records the calls on `node`, failing them with EINVAL if `fail`.
    void watch(const std::string& node, size_t bytes = 0, bool fail = false) {
        mWatching = stat(node.c_str(), &mNode) == 0;
        mBytes = bytes;
        mFail = fail;
        mCalls.clear();
    }
    const std::vector<Call>& calls() const { return mCalls; }

    int ioctl(int fd, unsigned long request, void* arg) override {
        struct stat st;
        if (!mWatching || fstat(fd, &st) != 0 || st.st_dev != mNode.st_dev ||
            st.st_ino != mNode.st_ino)
            return OrvDevice::ioctl(fd, request, arg);
        const char* p = static_cast<const char*>(arg);
        mCalls.push_back({fd, uint32_t(request), !p,
                          !p       ? ""
                          : mBytes ? std::string(p, mBytes)
                                   : p});
        if (mFail) errno = EINVAL;
        return mFail ? -1 : 0;
    }

  private:
    struct stat mNode = {};
    bool mWatching = false, mFail = false;
    size_t mBytes = 0;
    std::vector<Call> mCalls;
};

// The argument bytes of an int, as the driver sees them.
std::string bytesOf(int v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof(v));
}

// Replaces each `from` in `text` with `to`.
std::string subst(std::string text, char from, const std::string& to) {
    for (size_t i = 0; (i = text.find(from, i)) != std::string::npos; i += to.size())
        text.replace(i, 1, to);
    return text;
}

class IoctlTest : public policytest::PolicyTest {
  protected:
    void SetUp() override {
        PolicyTest::SetUp();
        OrvDevice::install(&recorder);
    }
    void TearDown() override {
        OrvDevice::install(nullptr);
        PolicyTest::TearDown();
    }
    // The methods run on this thread only, so it may go with the test.
    IoctlRecorder recorder;
};

TEST_F(IoctlTest, RequestsArgumentsAndRefusals) {
    const std::string node = mRoot.write("dev/orvnode", "");
    // & for the node path, ~ for a missing node, % for the location prefix.
    auto expand = [&](const std::string& text) {
        return subst(subst(subst(text, '&', node), '~', mRoot / "dev/none"), '%',
                     "A.action.run.on_enter[0]");
    };
    // Runs `m` as the only "on_enter" method of A in state run, `times` times. A leading I or O
    // names "ioctl" or "orv_ioctl", & and ~ stand for "path" members, ^ for the cfg key.
    auto run = [&](std::string m, int times = 1) {
        m = (m[0] == 'I' ? "'method':'ioctl'," : "'method':'orv_ioctl',") + m.substr(1);
        m = subst(subst(m, '&', "'path':'&'"), '~', "'path':'~'");
        m = subst(subst(m, '^', "'method_ioctl_cfg':"), '\'', "\"");
        auto db = policytest::parseDB(R"({"applications":{"A":{"action":{"run":{"on_enter":[{)" +
                                      expand(m) + "}]}}}}}");
        OrvActionManager::OrvAction action("run", "run", "A", 4321, -1);
        for (int i = 0; i < times; ++i) db->executeOnEnterAction(&action);
    };
    struct Row {
        const char* method;
        size_t bytes;      // 0: the argument is recorded as text
        uint32_t request;  // 0: no ioctl issued
        bool nullArg;
        std::string arg;
        std::string error;  // with a request: the driver fails it with EINVAL
    };
    // clang-format off
    const Row rows[] = {
        {"I&,^{'dir':'_IOW','type':'T','nr':1,'size':4,'param_type':'int'},'type':'int','value':7", 4, 0x40045401, false, bytesOf(7), ""},
        {"I&,^{'dir':'_IOW','type':'T','nr':1,'size':4,'param_type':'i'},'type':'string','value':'-3'", 4, 0x40045401, false, bytesOf(-3), ""},
        {"I&,^{'dir':'_IO','type':'T','nr':1,'size':4}", 0, 0x5401, true, "", ""},
        {"I&,^{'dir':'_IOWR','type':'0x54','nr':2,'size':3,'param_type':'binary'},'type':'binary','value':'01 02 FF'", 3, 0xC0035402, false, "\x01\x02\xFF", ""},
        {"I&,^{'dir':'_IOR|_IOW','type':'0x54','nr':2,'size':1,'param_type':'bytes'},'type':'binary','value':'0a'", 1, 0xC0015402, false, "\x2A", ""},
        {"I&,^{'dir':'_IOW','type':'x','nr':9,'param_type':'string'},'type':'string','value':'hi'", 0, 0x40007809, false, "hi", ""},
        {"I&,^{'dir':'_IOW','type':'x','nr':9,'size':99,'param_type':'s'},'type':'var','value':'PID'", 0, 0x40637809, false, "4321", ""},
        {"I&,^{'dir':'_IO','type':'0x12zz','nr':1}", 0, 0x1201, true, "", ""},
        // Fields are not masked: a wide type spills into the size bits, a wide cmd into the type.
        {"I&,^{'dir':'_IO','type':'0x1FF','nr':1}", 0, 0x1FF01, true, "", ""},
        {"O&,'cmd':256,'value':'1 2'", 0, 0x40047900, false, "1 2", ""},
        {"O&,'value':''", 0, 0x40047800, false, "", ""},
        {"I&,^{'dir':'_IOR','type':'T','nr':1,'size':4,'param_type':'int'},'type':'int','value':7", 0, 0, false, "", ""},
        {"I&,^{'dir':'_IOW','type':'T','nr':1,'size':4},'type':'int','value':7", 0, 0, false, "", "Unsupported ioctl param_type(undefined) in method_ioctl_cfg. (fetch %ioctl)"},
        {"I&,^{'dir':'_IOW','type':'TT','nr':1}", 0, 0, false, "", "Unknown hex string format (TT)\nUnknown \"type\" format(TT) in method_ioctl_cfg. @%ioctl"},
        {"I&,^{'dir':'_IOW','type':'0x','nr':1}", 0, 0, false, "", "Unknown hex string format (0x)\nUnknown \"type\" format(0x) in method_ioctl_cfg. @%ioctl"},
        {"I&,^{'dir':'_IOW','type':84,'nr':1}", 0, 0, false, "", "\"type \" should be a string in method_ioctl_cfg @%ioctl"},
        {"I&,^{'dir':'_IOX','type':'T','nr':1}", 0, 0, false, "", "Unknown \"dir\" type(_IOX) in method_ioctl_cfg @%ioctl"},
        {"I&,^{'dir':'_IOW','type':'T','nr':'1'}", 0, 0, false, "", "\"nr \" should be an int in method_ioctl_cfg. (fetch %ioctl)"},
        {"I&,^{'dir':'_IOW','type':'T','nr':1,'size':4,'param_type':'binary'},'type':'binary','value':'01 02 03'", 0, 0, false, "", "\"size\"(4) in method_ioctl_cfg doesn't match \"value\" size(3). (fetch %ioctl)"},
        {"I&,^'not an object'", 0, 0, false, "", "\"method_ioctl_cfg\" is not an object @%ioctl"},
        {"I&,'x':1", 0, 0, false, "", "Cannot find method_ioctl_cfg @%ioctl"},
        {"I~,^{'dir':'_IO','type':'T','nr':1}", 0, 0, false, "", "Cannot open \"~\"(errno=2) @%ioctl"},
        {"O~,'cmd':1,'value':'v'", 0, 0, false, "", "cannot open \"~\" (errno=2) @%orv_ioctl"},
        {"O'cmd':1,'value':'v'", 0, 0, false, "", "path type is not a string. (fetch %orv_ioctl)"},
        {"O&,'cmd':1,'value':7", 0, 0, false, "", "value type is not string (%orv_ioctl)"},
        {"I&,^{'dir':'_IOW','type':'T','nr':1,'size':4,'param_type':'int'},'type':'int','value':7", 4, 0x40045401, false, bytesOf(7), "ioctl{path:& dir:1 type:84 nr:1 size:4 param_type:int} (ret=-1, errno=22) @%ioctl"},
        // A "cmd" of another kind converts as JsonCpp converts it; an inconvertible one counts as 0.
        {"O&,'cmd':3.5,'value':'v'", 0, 0x40047803, false, "v", "orv_ioctl{path:& cmd:3 value:v} (ret=-1, errno=22) @%orv_ioctl"},
        {"O&,'cmd':'2','value':'v'", 0, 0x40047800, false, "v", "\"cmd\" is not an int, 0 is used @%orv_ioctl\norv_ioctl{path:& cmd:0 value:v} (ret=-1, errno=22) @%orv_ioctl"},
    };
    // clang-format on
    for (const Row& r : rows) {
        recorder.watch(node, r.bytes, r.request && !r.error.empty());
        mLog.clear();
        run(r.method);
        const auto& got = recorder.calls();
        ASSERT_EQ(r.request ? 1u : 0u, got.size()) << r.method;
        if (r.request) {
            EXPECT_EQ(std::make_tuple(r.request, r.nullArg, r.arg),
                      std::make_tuple(got[0].request, got[0].nullArg, got[0].arg))
                << r.method;
        }
        EXPECT_EQ(expand(r.error), errors()) << r.method;
    }
    // The node is opened anew each time.
    recorder.watch(node);
    run("I&,^{'dir':'_IO','type':'T','nr':1}", 3);
    run("O&,'value':'x'", 2);
    std::set<int> fds;
    for (const auto& c : recorder.calls()) fds.insert(c.fd);
    EXPECT_EQ(5u, fds.size());  // five calls, five descriptors
}

}  // namespace
