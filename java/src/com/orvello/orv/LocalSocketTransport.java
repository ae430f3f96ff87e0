package com.orvello.orv;

import android.net.LocalSocket;
import android.net.LocalSocketAddress;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.SocketTimeoutException;

/** The device's transport: the reserved socket "orvd" that init creates. */
public final class LocalSocketTransport implements OrvTransport {
    private final String mName;

    public LocalSocketTransport() {
        this(OrvProtocol.SOCKET_NAME);
    }

    public LocalSocketTransport(String name) {
        mName = name;
    }

    @Override
    public Connection connect() throws IOException {
        final LocalSocket socket = new LocalSocket();
        try {
            socket.connect(new LocalSocketAddress(mName, LocalSocketAddress.Namespace.RESERVED));
        } catch (IOException e) {
            socket.close();
            throw e;
        }
        final OutputStream out = socket.getOutputStream();
        final InputStream in = socket.getInputStream();
        return new Connection() {
            @Override
            public void write(byte[] bytes, int len) throws IOException {
                out.write(bytes, 0, len);
            }

            @Override
            public int read(byte[] into, int timeoutMs) throws IOException {
                socket.setSoTimeout(Math.max(timeoutMs, 1));
                try {
                    return in.read(into);
                } catch (SocketTimeoutException e) {
                    return 0;
                }
            }

            @Override
            public void close() {
                try {
                    socket.shutdownOutput();
                } catch (IOException ignored) {
                    // Already gone.
                }
                try {
                    socket.close();
                } catch (IOException ignored) {
                    // Already gone.
                }
            }
        };
    }
}
