package android.net;

import java.io.Closeable;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;

/** Compile-only stand-in for the platform class; never shipped. */
public class LocalSocket implements Closeable {
    public LocalSocket() {
        throw new UnsupportedOperationException("stub");
    }

    public void connect(LocalSocketAddress endpoint) throws IOException {}

    public InputStream getInputStream() throws IOException {
        return null;
    }

    public OutputStream getOutputStream() throws IOException {
        return null;
    }

    public void setSoTimeout(int ms) throws IOException {}

    public void shutdownOutput() throws IOException {}

    @Override
    public void close() throws IOException {}
}
