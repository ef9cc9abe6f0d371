package com.velt.rz.corvane.nimbra.overflow;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.file.Path;

/** Real files whose transfers fail on request. Not for more than one thread. */
final class FaultyFiles implements BlockFile.Opener {
    static final int NEVER = -1;

    /** Transfers and creations that still succeed before the fault sets in; counted down. */
    int goodWrites = NEVER;

    int goodReads = NEVER;
    int goodCreations = NEVER;

    /** What a faulty write or creation throws; if null, a faulty write moves half of its bytes, and then none. */
    String writeError;

    /** What a faulty read throws; if null, it finds half of the bytes, and then the end of the file. */
    String readError;

    /** The most that one transfer moves, without that being a fault. */
    int mostBytes = Integer.MAX_VALUE;

    private boolean halved;

    /** Ends all faults. */
    void repair() {
        goodWrites = NEVER;
        goodReads = NEVER;
        goodCreations = NEVER;
        writeError = null;
        readError = null;
        halved = false;
    }

    @Override
    public BlockFile create(Path path) throws IOException {
        if (goodCreations == 0) {
            throw new IOException(writeError);
        }
        goodCreations = Math.max(NEVER, goodCreations - 1);
        BlockFile file = ChannelFile.create(path);
        return new BlockFile() {
            @Override
            public int write(ByteBuffer bytes, long offset) throws IOException {
                if (goodWrites == 0) {
                    return faulty(true, bytes, offset);
                }
                goodWrites = Math.max(NEVER, goodWrites - 1);
                return some(true, bytes, offset, mostBytes);
            }

            @Override
            public int read(ByteBuffer bytes, long offset) throws IOException {
                if (goodReads == 0) {
                    return faulty(false, bytes, offset);
                }
                goodReads = Math.max(NEVER, goodReads - 1);
                return some(false, bytes, offset, mostBytes);
            }

            private int faulty(boolean write, ByteBuffer bytes, long offset) throws IOException {
                String error = write ? writeError : readError;
                if (error != null) {
                    throw new IOException(error);
                }
                if (halved) {
                    return write ? 0 : -1;
                }
                halved = true;
                return some(write, bytes, offset, bytes.remaining() / 2);
            }

            private int some(boolean write, ByteBuffer bytes, long offset, int most) throws IOException {
                int end = bytes.limit();
                bytes.limit(bytes.position() + Math.min(most, bytes.remaining()));
                try {
                    return write ? file.write(bytes, offset) : file.read(bytes, offset);
                } finally {
                    bytes.limit(end);
                }
            }

            @Override
            public void close() throws IOException {
                file.close();
            }
        };
    }
}
