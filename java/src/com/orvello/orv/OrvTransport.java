package com.orvello.orv;

import java.io.IOException;

/** How a client reaches orvd: a local stream socket on a device, a unix socket on a host. */
public interface OrvTransport {
    /** One open stream to orvd. */
    interface Connection {
        /** Writes all {@code len} bytes. */
        void write(byte[] bytes, int len) throws IOException;

        /** Reads what has come within {@code timeoutMs}: the count, 0 on time-out, -1 at end. */
        int read(byte[] into, int timeoutMs) throws IOException;

        /** Closes; a write blocked in another thread fails. */
        void close();
    }

    /** Opens a new connection without waiting for a busy daemon. */
    Connection connect() throws IOException;
}
