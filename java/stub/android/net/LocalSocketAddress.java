package android.net;

/** Compile-only stand-in for the platform class; never shipped. */
public class LocalSocketAddress {
    public enum Namespace { ABSTRACT, RESERVED, FILESYSTEM }

    public LocalSocketAddress(String name, Namespace namespace) {
        throw new UnsupportedOperationException("stub");
    }
}
