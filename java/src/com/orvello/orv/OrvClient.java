package com.orvello.orv;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.util.ArrayList;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;

/**
 * The framework's side of orvd: one typed call per message.
 *
 * <p>Events never block the caller and never throw: they are framed on the caller's thread, put
 * in a bounded queue and written by a background thread. When the queue is full, or orvd cannot
 * be reached, they are dropped and counted. Queries wait for their answer, at most the query
 * time-out, on a connection of their own, and answer null when none came.
 */
public final class OrvClient implements AutoCloseable {
    /** Tuning; the defaults suit system_server. */
    public static final class Options {
        public int queueCapacity = 256;
        public int queryTimeoutMs = 500;
        /** First pause after a failed connect, doubled up to the maximum. */
        public int backoffMinMs = 10;
        public int backoffMaxMs = 1000;
    }

    // Whole frames up to what orvd takes in one read, so that a daemon that keeps up reads
    // whole frames only and never leaves a part of one behind.
    private static final int BATCH_BYTES = OrvProtocol.READ_MAX;

    private final OrvTransport mTransport;
    private final Options mOptions;
    private final ArrayBlockingQueue<byte[]> mQueue;
    private final AtomicLong mPosted = new AtomicLong();
    private final AtomicLong mSent = new AtomicLong();
    private final AtomicLong mDropped = new AtomicLong();
    private final AtomicLong mConnects = new AtomicLong();
    private final Thread mSender;
    private volatile boolean mClosed;
    private volatile OrvTransport.Connection mEvents;
    private long mNextAttemptMs;
    private int mBackoffMs;

    private final Object mQueryLock = new Object();
    private OrvTransport.Connection mQueries;
    private final byte[] mReplyBuf = new byte[8192];
    private final ByteArrayOutputStream mPending = new ByteArrayOutputStream();

    /** A client of the reserved socket "orvd" on a device. */
    public OrvClient() {
        this(new LocalSocketTransport(), new Options());
    }

    public OrvClient(OrvTransport transport, Options options) {
        mTransport = transport;
        mOptions = options;
        mQueue = new ArrayBlockingQueue<>(Math.max(options.queueCapacity, 1));
        mBackoffMs = options.backoffMinMs;
        mSender = new Thread(this::senderLoop, "orv-client");
        mSender.setDaemon(true);
        mSender.start();
    }

    // Events: true when queued, false when dropped.

    public boolean processStart(int pid, String name) {
        return post(OrvProtocol.PROCESS_START, OrvProtocol.fields(pid, name));
    }

    public boolean processDie(int pid, String name) {
        return post(OrvProtocol.PROCESS_DIE, OrvProtocol.fields(pid, name));
    }

    public boolean launch(String app) {
        return post(OrvProtocol.ACTIVITY_START, OrvProtocol.fields(OrvProtocol.PID_LAUNCH, app));
    }

    public boolean start(int pid, String app) {
        return post(OrvProtocol.ACTIVITY_START, OrvProtocol.fields(pid, app));
    }

    public boolean displayed(int pid, String app) {
        return post(OrvProtocol.ACTIVITY_DISPLAYED, OrvProtocol.fields(pid, app));
    }

    public boolean transition(int fromPid, String fromApp, int toPid, String toApp) {
        return post(OrvProtocol.ACTIVITY_TRANSITION,
                OrvProtocol.fields(fromPid, fromApp, toPid, toApp));
    }

    public boolean rotate(OrvProtocol.Rotate phase) {
        return phase != null && post(phase.code, "");
    }

    public boolean listView(OrvProtocol.ListView state, int pid) {
        return state != null && post(OrvProtocol.LIST_VIEW, OrvProtocol.fields(pid, state.value));
    }

    public boolean gesture(OrvProtocol.Gesture gesture, int pid) {
        return gesture != null
                && post(OrvProtocol.VIEW_GESTURE, OrvProtocol.fields(pid, gesture.value));
    }

    public boolean scale(OrvProtocol.Scale phase, int pid) {
        return phase != null && post(OrvProtocol.SCALE, OrvProtocol.fields(pid, phase.value));
    }

    public boolean glThreadAttach(int pid, int tid) {
        return post(OrvProtocol.GLTHREAD_ATTACH, OrvProtocol.fields(pid, tid));
    }

    public boolean glThreadDetach(int pid, int tid) {
        return post(OrvProtocol.GLTHREAD_DETTACH, OrvProtocol.fields(pid, tid));
    }

    public boolean update(String policyPath) {
        return post(OrvProtocol.CONFIGURATION_UPDATE, String.valueOf(policyPath));
    }

    public boolean goingToSleep() {
        return post(OrvProtocol.GOING_TO_SLEEP, "");
    }

    public boolean wakingUp() {
        return post(OrvProtocol.WAKING_UP, "");
    }

    public boolean timeout() {
        return post(OrvProtocol.TIMEOUT, "");
    }

    // Queries: the answer, or null when orvd did not answer in time.

    public String eventMask(String app) {
        return ask(OrvProtocol.CONFIGURATION_QUERY,
                OrvProtocol.fields(OrvProtocol.QueryBy.NAME.value, app));
    }

    public String eventMaskOfPid(int pid) {
        return ask(OrvProtocol.CONFIGURATION_QUERY,
                OrvProtocol.fields(OrvProtocol.QueryBy.PID.value, pid));
    }

    public String largeHeap(int pid) {
        return ask(OrvProtocol.DALVIK_LARGE_HEAP, Integer.toString(pid));
    }

    public String heapUtilization(int pid) {
        return ask(OrvProtocol.DALVIK_HEAP_UTILIZATION, Integer.toString(pid));
    }

    public String hardwareAcceleration(int pid) {
        return ask(OrvProtocol.HARDWARE_ACCELERATION, Integer.toString(pid));
    }

    public String thermalMask(String app) {
        return ask(OrvProtocol.DISABLE_THERMAL, String.valueOf(app));
    }

    public String dump() {
        return ask(OrvProtocol.DUMP_STATE, "");
    }

    /** Events written to orvd. */
    public long sent() {
        return mSent.get();
    }

    /** Events given up: queue full or orvd unreachable. */
    public long dropped() {
        return mDropped.get();
    }

    /** Connections the sender made. */
    public long connects() {
        return mConnects.get();
    }

    /** Waits until every event queued so far was written or dropped; false after the time. */
    public boolean flush(long timeoutMs) {
        long deadline = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(timeoutMs);
        while (mSent.get() + mDropped.get() < mPosted.get()) {
            if (System.nanoTime() >= deadline) return false;
            try {
                Thread.sleep(1);
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
                return false;
            }
        }
        return true;
    }

    @Override
    public void close() {
        mClosed = true;
        OrvTransport.Connection c = mEvents;
        // A write into a wedged orvd would otherwise keep the sender for ever.
        if (c != null) c.close();
        mSender.interrupt();
        synchronized (mQueryLock) {
            if (mQueries != null) mQueries.close();
            mQueries = null;
        }
    }

    private boolean post(int code, String payload) {
        try {
            mPosted.incrementAndGet();
            if (!mClosed && mQueue.offer(OrvProtocol.frame(code, payload))) return true;
        } catch (RuntimeException e) {
            // Nothing reaches the caller.
        }
        mDropped.incrementAndGet();
        return false;
    }

    private void senderLoop() {
        ArrayList<byte[]> frames = new ArrayList<>();
        ByteArrayOutputStream batch = new ByteArrayOutputStream(BATCH_BYTES);
        while (!mClosed) {
            byte[] first;
            try {
                first = mQueue.take();
            } catch (InterruptedException e) {
                break;
            }
            frames.clear();
            frames.add(first);
            int bytes = first.length;
            byte[] next;
            while ((next = mQueue.peek()) != null && bytes + next.length <= BATCH_BYTES) {
                frames.add(mQueue.poll());
                bytes += next.length;
            }
            batch.reset();
            for (byte[] f : frames) batch.write(f, 0, f.length);
            boolean ok = connectIfDue();
            if (ok && !write(batch)) {
                // An orvd that restarted took nothing of this batch: one more try anew.
                closeEvents();
                mNextAttemptMs = 0;
                ok = !mClosed && connectIfDue() && write(batch);
            }
            if (ok) {
                mSent.addAndGet(frames.size());
            } else {
                closeEvents();
                // orvd is away: what waits now would be stale by the time it is back.
                int stale = mQueue.size();
                ArrayList<byte[]> gone = new ArrayList<>(stale);
                mQueue.drainTo(gone);
                mDropped.addAndGet(frames.size() + gone.size());
                pauseUntil(mNextAttemptMs);
            }
        }
        mDropped.addAndGet(mQueue.size());
        mQueue.clear();
        closeEvents();
    }

    private boolean connectIfDue() {
        if (mEvents != null) return true;
        long now = System.nanoTime() / 1000000;
        if (now < mNextAttemptMs) return false;
        try {
            mEvents = mTransport.connect();
            mBackoffMs = mOptions.backoffMinMs;
            mConnects.incrementAndGet();
            if (mClosed) closeEvents();
            return mEvents != null;
        } catch (IOException | RuntimeException e) {
            mNextAttemptMs = now + mBackoffMs;
            mBackoffMs = Math.min(mBackoffMs * 2, mOptions.backoffMaxMs);
            return false;
        }
    }

    private boolean write(ByteArrayOutputStream batch) {
        OrvTransport.Connection c = mEvents;
        if (c == null) return false;
        try {
            c.write(batch.toByteArray(), batch.size());
            return true;
        } catch (IOException | RuntimeException e) {
            return false;
        }
    }

    private void closeEvents() {
        OrvTransport.Connection c = mEvents;
        mEvents = null;
        if (c != null) c.close();
    }

    private void pauseUntil(long whenMs) {
        long ms = whenMs - System.nanoTime() / 1000000;
        if (ms <= 0) return;
        try {
            Thread.sleep(ms);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            mClosed = true;
        }
    }

    private String ask(int code, String payload) {
        byte[] frame = OrvProtocol.frame(code, payload);
        synchronized (mQueryLock) {
            for (int attempt = 0; attempt < 2 && !mClosed; attempt++) {
                try {
                    if (mQueries == null) {
                        mQueries = mTransport.connect();
                        mPending.reset();
                    }
                    mQueries.write(frame, frame.length);
                } catch (IOException | RuntimeException e) {
                    // A connection orvd closed since the last query shows only when used.
                    dropQueries();
                    continue;
                }
                OrvProtocol.Reply reply = readReply();
                if (reply != null && reply.code == code) return reply.text;
                // A late answer would be taken for the next query's.
                dropQueries();
                return null;
            }
            return null;
        }
    }

    private OrvProtocol.Reply readReply() {
        long deadline = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(mOptions.queryTimeoutMs);
        try {
            for (;;) {
                byte[] have = mPending.toByteArray();
                for (int i = 0; i < have.length; i++) {
                    if (have[i] != 0) continue;
                    mPending.reset();
                    mPending.write(have, i + 1, have.length - i - 1);
                    return OrvProtocol.parseReply(have, i);
                }
                long left = TimeUnit.NANOSECONDS.toMillis(deadline - System.nanoTime());
                if (left <= 0) return null;
                int n = mQueries.read(mReplyBuf, (int) left);
                if (n < 0) return null;
                mPending.write(mReplyBuf, 0, n);
            }
        } catch (IOException | RuntimeException e) {
            return null;
        }
    }

    private void dropQueries() {
        if (mQueries != null) mQueries.close();
        mQueries = null;
    }
}
