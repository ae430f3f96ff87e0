package com.orvello.orv;

import java.io.IOException;
import java.lang.reflect.Field;
import java.net.StandardProtocolFamily;
import java.net.UnixDomainSocketAddress;
import java.nio.ByteBuffer;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.function.Function;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/** Host tests of the Java client; one test per run: OrvClientTest NAME BIN_DIR SOURCE_DIR. */
public final class OrvClientTest {
    private static final String APP = "com.android.chrome";
    private static final String OTHER_APP = "com.android.launcher3";

    private static String sBinDir;
    private static String sSourceDir;
    private static int sFailures;

    public static void main(String[] args) throws Exception {
        sBinDir = args[1];
        sSourceDir = args[2];
        switch (args[0]) {
            case "Wire": wire(); break;
            case "ProtocolMatchesHeader": protocolMatchesHeader(); break;
            case "EffectsAndAnswers": effectsAndAnswers(); break;
            case "Reconnect": reconnect(); break;
            case "OutageStopped": outage("stopped"); break;
            case "OutageParked": outage("parked"); break;
            case "OutageWedged": outage("wedged"); break;
            default: throw new IllegalArgumentException("no test " + args[0]);
        }
        System.out.println(sFailures == 0 ? "PASSED " + args[0] : "FAILED " + args[0]);
        System.exit(sFailures == 0 ? 0 : 1);
    }

    private static void check(boolean ok, String what) {
        if (ok) return;
        sFailures++;
        System.out.println("failure: " + what);
    }

    private static OrvClient client(Path socket, int queryTimeoutMs) {
        OrvClient.Options o = new OrvClient.Options();
        o.queryTimeoutMs = queryTimeoutMs;
        o.backoffMaxMs = 50;
        return new OrvClient(new UnixSocketTransport(socket), o);
    }

    private static Function<OrvClient, String> event(java.util.function.Consumer<OrvClient> f) {
        return c -> {
            f.accept(c);
            return null;
        };
    }

    // The client call that stands for each orvctl command of the reference file.
    private static Map<String, Function<OrvClient, String>> calls() {
        final String app = "com.example.app";
        Map<String, Function<OrvClient, String>> m = new LinkedHashMap<>();
        m.put("proc-start 1234 com.example.app", event(c -> c.processStart(1234, app)));
        m.put("proc-die 1234 com.example.app", event(c -> c.processDie(1234, app)));
        m.put("launch com.example.app", event(c -> c.launch(app)));
        m.put("start 1234 com.example.app", event(c -> c.start(1234, app)));
        m.put("displayed 1234 com.example.app", event(c -> c.displayed(1234, app)));
        m.put("transit 1234 com.example.app 5678 com.example.other",
                event(c -> c.transition(1234, app, 5678, "com.example.other")));
        m.put("rotate start", event(c -> c.rotate(OrvProtocol.Rotate.START)));
        m.put("rotate anim-start", event(c -> c.rotate(OrvProtocol.Rotate.ANIMATION_START)));
        m.put("rotate anim-end", event(c -> c.rotate(OrvProtocol.Rotate.ANIMATION_END)));
        m.put("list idle 1234", event(c -> c.listView(OrvProtocol.ListView.IDLE, 1234)));
        m.put("list scroll 1234", event(c -> c.listView(OrvProtocol.ListView.SCROLL, 1234)));
        m.put("list fling 1234", event(c -> c.listView(OrvProtocol.ListView.FLING, 1234)));
        m.put("gesture down 1234", event(c -> c.gesture(OrvProtocol.Gesture.DOWN, 1234)));
        m.put("gesture press 1234", event(c -> c.gesture(OrvProtocol.Gesture.PRESS, 1234)));
        m.put("gesture tap 1234", event(c -> c.gesture(OrvProtocol.Gesture.TAP, 1234)));
        m.put("gesture scroll 1234", event(c -> c.gesture(OrvProtocol.Gesture.SCROLL, 1234)));
        m.put("gesture fling 1234", event(c -> c.gesture(OrvProtocol.Gesture.FLING, 1234)));
        m.put("gesture long-press 1234",
                event(c -> c.gesture(OrvProtocol.Gesture.LONG_PRESS, 1234)));
        m.put("scale start 1234", event(c -> c.scale(OrvProtocol.Scale.START, 1234)));
        m.put("scale continue 1234", event(c -> c.scale(OrvProtocol.Scale.CONTINUE, 1234)));
        m.put("scale end 1234", event(c -> c.scale(OrvProtocol.Scale.END, 1234)));
        m.put("gl-attach 1234 1240", event(c -> c.glThreadAttach(1234, 1240)));
        m.put("gl-detach 1234 1240", event(c -> c.glThreadDetach(1234, 1240)));
        m.put("large-heap 1234", c -> c.largeHeap(1234));
        m.put("heap-utilization 1234", c -> c.heapUtilization(1234));
        m.put("hw-accel 1234", c -> c.hardwareAcceleration(1234));
        m.put("thermal-mask com.example.app", c -> c.thermalMask(app));
        m.put("send 301 /data/local/tmp/new-policy",
                event(c -> c.update("/data/local/tmp/new-policy")));
        m.put("sleep", event(OrvClient::goingToSleep));
        m.put("wake", event(OrvClient::wakingUp));
        m.put("event-mask com.example.app", c -> c.eventMask(app));
        m.put("event-mask --pid 1234", c -> c.eventMaskOfPid(1234));
        m.put("timeout", event(OrvClient::timeout));
        m.put("dump", OrvClient::dump);
        return m;
    }

    /** Every call's bytes against the frames orvctl wrote before the clients existed. */
    private static void wire() throws Exception {
        Path dir = Files.createTempDirectory("orvwire.");
        Path sock = dir.resolve("orvd.sock");
        Recorder rec = new Recorder(sock);
        Map<String, Function<OrvClient, String>> calls = calls();
        List<String> lines = new ArrayList<>();
        for (String l : Files.readAllLines(Path.of(sSourceDir, "tests/client/orvctl-frames.txt"))) {
            if (!l.isEmpty() && !l.startsWith("#")) lines.add(l);
        }
        check(lines.size() == calls.size(), "a command without a call, or a call too many");
        try (OrvClient c = client(sock, 5000)) {
            for (String line : lines) {
                String[] parts = line.split("\t", 2);
                Function<OrvClient, String> call = calls.get(parts[0]);
                if (call == null) {
                    check(false, "no call for " + parts[0]);
                    continue;
                }
                rec.clear();
                String answer = call.apply(c);
                check(c.flush(5000), parts[0] + ": not flushed");
                check(TestDaemon.eventually(() -> rec.bytes().equals(parts[1]), 5000),
                        parts[0] + ": wrote " + rec.bytes() + ", not " + parts[1]);
                if (answer != null) check(answer.equals("ok"), parts[0] + ": answer " + answer);
            }
            check(c.dropped() == 0, "dropped " + c.dropped());
        }
        rec.close();
    }

    /** The Java constants are the native header's. */
    private static void protocolMatchesHeader() throws Exception {
        String header = Files.readString(Path.of(sSourceDir, "protocol/include/orv/protocol.h"));
        Matcher codes = Pattern.compile("\\n    ([A-Z_]+) = (\\d+),").matcher(header);
        int n = 0;
        for (; codes.find(); n++) {
            Field f = OrvProtocol.class.getField(codes.group(1));
            check(f.getInt(null) == Integer.parseInt(codes.group(2)), codes.group(1));
        }
        check(n == 23, n + " codes in the header");
        Matcher readMax = Pattern.compile("kReadMax = (\\d+);").matcher(header);
        check(readMax.find() && Integer.parseInt(readMax.group(1)) == OrvProtocol.READ_MAX,
                "READ_MAX");
        String[][] subs = {{"ListView", "ListView"}, {"Gesture", "Gesture"}, {"Scale", "Scale"},
                {"QueryBy", "QueryBy"}};
        for (String[] s : subs) {
            Matcher block = Pattern.compile("enum class " + s[0] + " : int \\{([^}]*)\\}")
                    .matcher(header);
            check(block.find(), s[0] + " in the header");
            Matcher values = Pattern.compile("(\\w+) = (\\d+),").matcher(block.group(1));
            Class<?> type = Class.forName("com.orvello.orv.OrvProtocol$" + s[1]);
            int count = 0;
            for (; values.find(); count++) {
                String name = values.group(1).replaceAll("([a-z])([A-Z])", "$1_$2").toUpperCase();
                Object constant = type.getField(name).get(null);
                int v = type.getField("value").getInt(constant);
                check(v == Integer.parseInt(values.group(2)), s[0] + "." + name);
            }
            check(count == type.getEnumConstants().length, s[0] + ": " + count + " values");
        }
    }

    private static String dumpOf(OrvClient c) {
        String d = c.dump();
        return d == null ? "" : d;
    }

    private static void effectsAndAnswers() throws Exception {
        try (TestDaemon orvd = new TestDaemon(sBinDir, sSourceDir)) {
            orvd.start(true);
            check(orvd.ready(true), "orvd did not start: " + orvd.log());
            try (OrvClient c = client(orvd.socket(), 4000)) {
                c.processStart(4321, APP);
                c.glThreadAttach(4321, 4330);
                c.start(4321, APP);
                c.displayed(4321, APP);
                check(TestDaemon.eventually(() -> dumpOf(c).contains("App       : " + APP)
                        && dumpOf(c).contains("State     : run"), 10000), "not run: " + dumpOf(c));
                c.gesture(OrvProtocol.Gesture.FLING, 4321);
                check(TestDaemon.eventually(() -> dumpOf(c).contains("gesture_fling"), 10000),
                        "no fling: " + dumpOf(c));
                Map<String, String> asks = new LinkedHashMap<>();
                asks.put("event-mask " + APP, c.eventMask(APP));
                asks.put("event-mask --pid 4321", c.eventMaskOfPid(4321));
                asks.put("large-heap 4321", c.largeHeap(4321));
                asks.put("heap-utilization 4321", c.heapUtilization(4321));
                asks.put("hw-accel 4321", c.hardwareAcceleration(4321));
                asks.put("thermal-mask " + APP, c.thermalMask(APP));
                for (Map.Entry<String, String> e : asks.entrySet()) {
                    String expected = orvd.orvctl(e.getKey().split(" ")).trim();
                    check(!expected.isEmpty() && expected.equals(e.getValue()),
                            e.getKey() + ": " + e.getValue() + ", orvctl " + expected);
                }
                check(c.dropped() == 0, "dropped " + c.dropped());
            }
        }
    }

    private static void reconnect() throws Exception {
        try (TestDaemon orvd = new TestDaemon(sBinDir, sSourceDir)) {
            orvd.start(true);
            check(orvd.ready(true), "orvd did not start: " + orvd.log());
            try (OrvClient c = client(orvd.socket(), 4000)) {
                c.start(100, APP);
                check(TestDaemon.eventually(() -> dumpOf(c).contains(APP), 10000), "first");
                orvd.stop();
                orvd.start(true);
                check(orvd.ready(true), "orvd did not restart: " + orvd.log());
                // Events sent into the gap may be dropped; once orvd is back they arrive again.
                check(TestDaemon.eventually(() -> {
                    c.start(200, OTHER_APP);
                    c.flush(1000);
                    return dumpOf(c).contains(OTHER_APP);
                }, 20000), "not after the restart: " + dumpOf(c));
                check(c.connects() >= 2, c.connects() + " connections");
            }
        }
    }

    /** A caller never waits while orvd is gone, parked or stopped, and the drops are counted. */
    private static void outage(String kind) throws Exception {
        final int events = 100000;
        ExecutorService caller = Executors.newSingleThreadExecutor();
        try (TestDaemon orvd = new TestDaemon(sBinDir, sSourceDir)) {
            orvd.start(true);
            check(orvd.ready(true), "orvd did not start: " + orvd.log());
            try (OrvClient c = client(orvd.socket(), 200)) {
                c.start(100, APP);
                check(TestDaemon.eventually(() -> c.sent() == 1, 10000), "not connected");
                switch (kind) {
                    case "stopped": orvd.stop(); break;
                    case "parked": orvd.stop(); orvd.start(false); orvd.ready(false); break;
                    default: orvd.signal("STOP"); break;
                }
                // Far more than the queue and the socket's buffer hold.
                Future<String> calls = caller.submit(() -> {
                    for (int i = 0; i < events; i++) c.gesture(OrvProtocol.Gesture.TAP, 4321);
                    return String.valueOf(c.eventMask(APP));
                });
                String answer;
                try {
                    answer = calls.get(60, TimeUnit.SECONDS);
                } catch (java.util.concurrent.TimeoutException e) {
                    check(false, "a caller waited on orvd");
                    orvd.signal("CONT");
                    return;
                }
                check(answer.equals("null"), "an answer from an orvd that cannot answer: " + answer);
                // All but what waits in the queue or in the one write under way is counted.
                check(TestDaemon.eventually(() -> c.dropped() > 0
                        && c.dropped() + c.sent() >= events - 256 - OrvProtocol.READ_MAX, 10000),
                        "sent " + c.sent() + ", dropped " + c.dropped());
                switch (kind) {
                    case "wedged": orvd.signal("CONT"); break;
                    default: orvd.stop(); orvd.start(true); break;
                }
                check(TestDaemon.eventually(() -> c.eventMask(APP) != null, 20000),
                        "no answer once orvd is back");
            }
        } finally {
            caller.shutdownNow();
        }
    }

    /** Stands in for orvd: keeps every byte, answers each message orvd answers with "ok". */
    private static final class Recorder implements AutoCloseable {
        private final ServerSocketChannel mServer;
        private final StringBuffer mBytes = new StringBuffer();
        private final Thread mThread;

        Recorder(Path path) throws IOException {
            mServer = ServerSocketChannel.open(StandardProtocolFamily.UNIX);
            mServer.bind(UnixDomainSocketAddress.of(path));
            mThread = new Thread(this::serve);
            mThread.setDaemon(true);
            mThread.start();
        }

        String bytes() {
            return mBytes.toString();
        }

        void clear() {
            mBytes.setLength(0);
        }

        private void serve() {
            try {
                while (true) {
                    SocketChannel ch = mServer.accept();
                    Thread t = new Thread(() -> read(ch));
                    t.setDaemon(true);
                    t.start();
                }
            } catch (IOException e) {
                // Closed.
            }
        }

        private void read(SocketChannel ch) {
            ByteBuffer buf = ByteBuffer.allocate(4096);
            StringBuilder unparsed = new StringBuilder();
            try {
                while (ch.read(buf) > 0) {
                    String s = new String(buf.array(), 0, buf.position(), StandardCharsets.UTF_8);
                    buf.clear();
                    mBytes.append(s);
                    unparsed.append(s);
                    answer(ch, unparsed);
                }
            } catch (IOException e) {
                // Gone.
            }
        }

        private static void answer(SocketChannel ch, StringBuilder unparsed) throws IOException {
            for (;;) {
                int close = unparsed.indexOf("]");
                int comma = unparsed.indexOf(",");
                if (close < 0 || comma < 0 || comma > close) return;
                int code = Integer.parseInt(unparsed.substring(1, comma));
                int len = Integer.parseInt(unparsed.substring(comma + 1, close));
                if (unparsed.length() < close + 1 + len) return;
                String payload = unparsed.substring(close + 1, close + 1 + len);
                unparsed.delete(0, close + 1 + len);
                boolean asks = code == OrvProtocol.DALVIK_LARGE_HEAP
                        || code == OrvProtocol.DALVIK_HEAP_UTILIZATION
                        || code == OrvProtocol.HARDWARE_ACCELERATION
                        || code == OrvProtocol.DISABLE_THERMAL || code == OrvProtocol.DUMP_STATE
                        || code == OrvProtocol.CONFIGURATION_QUERY;
                if (!asks) continue;
                ch.write(ByteBuffer.wrap((code + " ok\0").getBytes(StandardCharsets.UTF_8)));
            }
        }

        @Override
        public void close() throws IOException {
            mServer.close();
        }
    }
}
