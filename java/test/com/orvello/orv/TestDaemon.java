package com.orvello.orv;

import java.io.File;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Comparator;
import java.util.function.BooleanSupplier;
import java.util.stream.Stream;

/** The real orvd in a throw-away root, running the example policy with its nodes in the root. */
final class TestDaemon implements AutoCloseable {
    private static final String[] NODES = {
        "sys/devices/system/cpu/cpu0/cpufreq/scaling_governor",
        "sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq",
        "sys/class/drm/card0/gt_min_freq_mhz",
        "dev/cpuctl/top-app/cpu.uclamp.min",
        "dev/cpuctl/top-app/cgroup.procs",
    };

    final Path root;
    private final String mBinDir;
    private final String mSourceDir;
    private Process mProcess;

    TestDaemon(String binDir, String sourceDir) throws IOException {
        mBinDir = binDir;
        mSourceDir = sourceDir;
        root = Files.createTempDirectory("orvjava.");
        Files.createDirectories(root.resolve("data"));
    }

    Path socket() {
        return root.resolve("dev/socket/orvd");
    }

    /** Starts orvd with the example policy, or without any policy so that it parks. */
    void start(boolean withPolicy) throws IOException {
        String text = null;
        if (withPolicy) {
            for (String node : NODES) {
                Path p = root.resolve(node);
                Files.createDirectories(p.getParent());
                if (!Files.exists(p)) Files.createFile(p);
            }
            text = Files.readString(Path.of(mSourceDir, "examples/tablet-policy.json"));
            text = text.replace("\"/sys/", "\"" + root + "/sys/")
                    .replace("\"/dev/cpuctl/", "\"" + root + "/dev/cpuctl/");
        }
        start(text);
    }

    /** Starts orvd with `policy` as its policy document (none when null). */
    void start(String policy) throws IOException {
        Path file = root.resolve("data/orvpolicy");
        Files.deleteIfExists(file);
        if (policy != null) Files.writeString(file, policy);
        ProcessBuilder pb = new ProcessBuilder(mBinDir + "/orvd");
        pb.environment().put("ORV_ROOT", root.toString());
        pb.redirectErrorStream(true);
        pb.redirectOutput(root.resolve("orvd.log").toFile());
        mProcess = pb.start();
    }

    /** Waits until orvd answers a dump, or for a parked one until it says it is off. */
    boolean ready(boolean withPolicy) throws IOException {
        return eventually(() -> {
            if (!withPolicy) {
                return "false".equals(read(root.resolve("dev/__properties__/sys.orv.enable")));
            }
            return orvctl("dump").startsWith("[version]");
        }, 10000);
    }

    void stop() {
        if (mProcess == null) return;
        mProcess.destroyForcibly();
        try {
            mProcess.waitFor();
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        mProcess = null;
    }

    void signal(String name) throws IOException {
        run("kill", "-" + name, Long.toString(mProcess.pid()));
    }

    /** orvctl's output for `args`, empty when it failed. */
    String orvctl(String... args) {
        String[] cmd = new String[args.length + 1];
        cmd[0] = mBinDir + "/orvctl";
        System.arraycopy(args, 0, cmd, 1, args.length);
        try {
            return run(cmd);
        } catch (IOException e) {
            return "";
        }
    }

    private String run(String... cmd) throws IOException {
        ProcessBuilder pb = new ProcessBuilder(cmd);
        pb.environment().put("ORV_ROOT", root.toString());
        pb.redirectError(ProcessBuilder.Redirect.DISCARD);
        Process p = pb.start();
        String out = new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        try {
            return p.waitFor() == 0 ? out : "";
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            return "";
        }
    }

    String log() {
        return read(root.resolve("orvd.log"));
    }

    @Override
    public void close() {
        stop();
        try (Stream<Path> all = Files.walk(root)) {
            all.sorted(Comparator.reverseOrder()).map(Path::toFile).forEach(File::delete);
        } catch (IOException ignored) {
            // Left for the system's cleaner.
        }
    }

    static String read(Path p) {
        try {
            return Files.readString(p);
        } catch (IOException e) {
            return "";
        }
    }

    /** Polls `done` up to `ms`. */
    static boolean eventually(BooleanSupplier done, long ms) {
        long end = System.nanoTime() + ms * 1000000L;
        while (System.nanoTime() < end) {
            if (done.getAsBoolean()) return true;
            try {
                Thread.sleep(5);
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
                return false;
            }
        }
        return done.getAsBoolean();
    }
}
