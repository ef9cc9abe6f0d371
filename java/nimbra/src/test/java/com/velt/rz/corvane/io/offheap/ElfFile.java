package com.velt.rz.corvane.io.offheap;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.ArrayList;
import java.util.List;
import java.util.TreeMap;

/** What the loader reads of a 64-bit little-endian ELF library: its segments and its dynamic section. */
final class ElfFile {
    static final int PT_LOAD = 1;
    static final int PT_DYNAMIC = 2;
    static final int PT_GNU_STACK = 0x6474e551;
    static final int PT_GNU_RELRO = 0x6474e552;

    static final int EXECUTABLE = 1;
    static final int WRITABLE = 2;

    static final long DT_NULL = 0;
    static final long DT_PLTGOT = 3;
    static final long DT_RPATH = 15;
    static final long DT_TEXTREL = 22;
    static final long DT_RUNPATH = 29;
    static final long DT_FLAGS = 30;
    static final long DT_FLAGS_1 = 0x6ffffffb;

    static final long DF_TEXTREL = 4;
    static final long DF_BIND_NOW = 8;
    static final long DF_1_NOW = 1;
    static final long DF_1_NODELETE = 8;

    /** One program header. */
    record Segment(int type, int flags, long offset, long address, long fileSize, long memorySize) {
        boolean contains(long place) {
            return place >= address && place < address + memorySize;
        }
    }

    final List<Segment> segments = new ArrayList<>();

    /** Values of the dynamic section by their tags; of a tag that comes several times, the last. */
    final TreeMap<Long, Long> dynamic = new TreeMap<>();

    ElfFile(byte[] library) {
        ByteBuffer elf = ByteBuffer.wrap(library).order(ByteOrder.LITTLE_ENDIAN);
        if (elf.getInt(0) != 0x464c457f || elf.get(4) != 2 || elf.get(5) != 1) {
            throw new IllegalArgumentException("not a 64-bit little-endian ELF file");
        }
        int headers = Math.toIntExact(elf.getLong(32));
        int headerSize = elf.getShort(54) & 0xffff;
        int headerCount = elf.getShort(56) & 0xffff;
        for (int i = 0; i < headerCount; i++) {
            int at = headers + i * headerSize;
            segments.add(new Segment(
                    elf.getInt(at),
                    elf.getInt(at + 4),
                    elf.getLong(at + 8),
                    elf.getLong(at + 16),
                    elf.getLong(at + 32),
                    elf.getLong(at + 40)));
        }
        for (Segment segment : of(PT_DYNAMIC)) {
            int at = Math.toIntExact(segment.offset());
            for (; elf.getLong(at) != DT_NULL; at += 16) {
                dynamic.put(elf.getLong(at), elf.getLong(at + 8));
            }
        }
    }

    List<Segment> of(int type) {
        return segments.stream().filter(segment -> segment.type() == type).toList();
    }

    /** Returns the value of a dynamic tag, or 0. */
    long dynamic(long tag) {
        return dynamic.getOrDefault(tag, 0L);
    }
}
