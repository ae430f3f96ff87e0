package com.orvello.orv;

import java.io.IOException;
import java.net.StandardProtocolFamily;
import java.net.UnixDomainSocketAddress;
import java.nio.ByteBuffer;
import java.nio.channels.SelectionKey;
import java.nio.channels.Selector;
import java.nio.channels.SocketChannel;
import java.nio.file.Path;

/** The host's transport: a unix stream socket at a path (JDK 16 and later). */
public final class UnixSocketTransport implements OrvTransport {
    private final Path mPath;

    public UnixSocketTransport(Path path) {
        mPath = path;
    }

    @Override
    public Connection connect() throws IOException {
        final SocketChannel ch = SocketChannel.open(StandardProtocolFamily.UNIX);
        try {
            ch.connect(UnixDomainSocketAddress.of(mPath));
        } catch (IOException e) {
            ch.close();
            throw e;
        }
        return new Connection() {
            @Override
            public void write(byte[] bytes, int len) throws IOException {
                ByteBuffer b = ByteBuffer.wrap(bytes, 0, len);
                while (b.hasRemaining()) ch.write(b);
            }

            @Override
            public int read(byte[] into, int timeoutMs) throws IOException {
                // Only a non-blocking channel can wait with a bound.
                ch.configureBlocking(false);
                try (Selector sel = Selector.open()) {
                    SelectionKey key = ch.register(sel, SelectionKey.OP_READ);
                    int ready = sel.select(Math.max(timeoutMs, 1));
                    int n = ready == 0 ? 0 : ch.read(ByteBuffer.wrap(into));
                    key.cancel();
                    sel.selectNow();
                    return n;
                } finally {
                    ch.configureBlocking(true);
                }
            }

            @Override
            public void close() {
                try {
                    ch.close();
                } catch (IOException ignored) {
                    // Already gone.
                }
            }
        };
    }
}
