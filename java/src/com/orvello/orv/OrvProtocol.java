package com.orvello.orv;

import java.nio.charset.StandardCharsets;

/**
 * The words orvd understands on its control socket; the same values as the native header
 * orv/protocol.h, which a host test compares with this class.
 *
 * <p>A message is the frame "[code,length]payload" (length in bytes, no terminator); fields are
 * separated by ";". A reply is "code text" ended by one NUL byte.
 */
public final class OrvProtocol {
    private OrvProtocol() {}

    /** The reserved socket init creates for orvd. */
    public static final String SOCKET_NAME = "orvd";

    public static final int PROCESS_START = 1; // pid;pname
    public static final int PROCESS_DIE = 2; // pid;pname
    public static final int ACTIVITY_START = 3; // pid;name: pid PID_LAUNCH while launching
    public static final int ACTIVITY_DISPLAYED = 4; // pid;pname
    public static final int ACTIVITY_TRANSITION = 5; // fromPid;fromName;toPid;toName
    public static final int ROTATE_START = 21; // no payload
    public static final int ROTATE_ANIMATION_START = 22; // no payload (logged only)
    public static final int ROTATE_ANIMATION_END = 23; // no payload
    public static final int LIST_VIEW = 33; // pid;ListView
    public static final int VIEW_GESTURE = 34; // pid;Gesture
    public static final int SCALE = 35; // pid;Scale
    public static final int GLTHREAD_ATTACH = 41; // pid;tid
    public static final int GLTHREAD_DETTACH = 42; // pid;tid
    public static final int DALVIK_LARGE_HEAP = 101; // pid; answers "true"/"false"
    public static final int DALVIK_HEAP_UTILIZATION = 102; // pid; answers a number, "-1" unknown
    public static final int HARDWARE_ACCELERATION = 103; // pid; answers a number, "-1" unknown
    public static final int DISABLE_THERMAL = 104; // name; answers the thermal mask
    public static final int CONFIGURATION_UPDATE = 301; // path of a new policy file
    public static final int GOING_TO_SLEEP = 302; // no payload
    public static final int WAKING_UP = 303; // no payload
    public static final int CONFIGURATION_QUERY = 400; // QueryBy;key; answers the event mask
    public static final int TIMEOUT = 500; // no payload (orvd's own timer)
    public static final int DUMP_STATE = 900; // no payload; answers the state dump

    /** orvd reads at most this many bytes of one client at a time. */
    public static final int READ_MAX = 511;

    /** The pid of ACTIVITY_START while the activity is only being launched. */
    public static final int PID_LAUNCH = -1;

    /** Second field of LIST_VIEW. */
    public enum ListView {
        IDLE(0), SCROLL(1), FLING(2);
        public final int value;
        ListView(int value) { this.value = value; }
    }

    /** Second field of VIEW_GESTURE. */
    public enum Gesture {
        DOWN(0), PRESS(1), TAP(2), SCROLL(3), FLING(4), LONG_PRESS(5);
        public final int value;
        Gesture(int value) { this.value = value; }
    }

    /** Second field of SCALE. */
    public enum Scale {
        START(0), CONTINUE(1), END(2);
        public final int value;
        Scale(int value) { this.value = value; }
    }

    /** The rotation events are codes of their own. */
    public enum Rotate {
        START(ROTATE_START), ANIMATION_START(ROTATE_ANIMATION_START),
        ANIMATION_END(ROTATE_ANIMATION_END);
        public final int code;
        Rotate(int code) { this.code = code; }
    }

    /** First field of CONFIGURATION_QUERY. */
    public enum QueryBy {
        NAME(0), PID(1);
        public final int value;
        QueryBy(int value) { this.value = value; }
    }

    /** The frame of one message; the length counts the payload's UTF-8 bytes. */
    public static byte[] frame(int code, String payload) {
        byte[] body = payload.getBytes(StandardCharsets.UTF_8);
        byte[] head = ("[" + code + "," + body.length + "]").getBytes(StandardCharsets.US_ASCII);
        byte[] out = new byte[head.length + body.length];
        System.arraycopy(head, 0, out, 0, head.length);
        System.arraycopy(body, 0, out, head.length, body.length);
        return out;
    }

    /** Fields joined by ";". */
    public static String fields(Object... values) {
        StringBuilder b = new StringBuilder();
        for (int i = 0; i < values.length; i++) {
            if (i > 0) b.append(';');
            b.append(values[i]);
        }
        return b.toString();
    }

    /** One reply: its code and answer text. */
    public static final class Reply {
        public final int code;
        public final String text;

        Reply(int code, String text) {
            this.code = code;
            this.text = text;
        }
    }

    /** The reply in {@code bytes[0, end)}, the bytes before its NUL. */
    public static Reply parseReply(byte[] bytes, int end) {
        String s = new String(bytes, 0, end, StandardCharsets.UTF_8);
        int blank = s.indexOf(' ');
        String number = blank < 0 ? s : s.substring(0, blank);
        int code;
        try {
            code = Integer.parseInt(number);
        } catch (NumberFormatException e) {
            code = 0;
        }
        return new Reply(code, blank < 0 ? "" : s.substring(blank + 1));
    }
}
