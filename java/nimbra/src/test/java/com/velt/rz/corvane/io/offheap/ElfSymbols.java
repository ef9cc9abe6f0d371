package com.velt.rz.corvane.io.offheap;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.util.TreeSet;

/** Reads the exported and the imported names of a 64-bit little-endian ELF library from its dynamic symbol table. */
final class ElfSymbols {
    private static final int SHT_DYNSYM = 11;
    private static final int SYMBOL_SIZE = 24;
    private static final int STB_LOCAL = 0;
    private static final int SHN_UNDEF = 0;

    private ElfSymbols() {}

    static TreeSet<String> exported(byte[] library) {
        return names(library, true);
    }

    static TreeSet<String> imported(byte[] library) {
        return names(library, false);
    }

    private static TreeSet<String> names(byte[] library, boolean defined) {
        ByteBuffer elf = ByteBuffer.wrap(library).order(ByteOrder.LITTLE_ENDIAN);
        if (elf.getInt(0) != 0x464c457f || elf.get(4) != 2 || elf.get(5) != 1) {
            throw new IllegalArgumentException("not a 64-bit little-endian ELF file");
        }
        int sections = Math.toIntExact(elf.getLong(40));
        int sectionSize = elf.getShort(58) & 0xffff;
        int sectionCount = elf.getShort(60) & 0xffff;
        TreeSet<String> names = new TreeSet<>();
        for (int i = 0; i < sectionCount; i++) {
            int section = sections + i * sectionSize;
            if (elf.getInt(section + 4) == SHT_DYNSYM) {
                int strings = sections + elf.getInt(section + 40) * sectionSize;
                addNames(elf, section, Math.toIntExact(elf.getLong(strings + 24)), defined, names);
            }
        }
        return names;
    }

    private static void addNames(ByteBuffer elf, int section, int strings, boolean defined, TreeSet<String> names) {
        int table = Math.toIntExact(elf.getLong(section + 24));
        int end = table + Math.toIntExact(elf.getLong(section + 32));
        for (int symbol = table; symbol < end; symbol += SYMBOL_SIZE) {
            int binding = (elf.get(symbol + 4) & 0xff) >> 4;
            int definedIn = elf.getShort(symbol + 6) & 0xffff;
            if (binding != STB_LOCAL && (definedIn != SHN_UNDEF) == defined) {
                names.add(text(elf, strings + elf.getInt(symbol)));
            }
        }
    }

    private static String text(ByteBuffer elf, int start) {
        int end = start;
        while (elf.get(end) != 0) {
            end++;
        }
        byte[] bytes = new byte[end - start];
        elf.get(start, bytes);
        return new String(bytes, StandardCharsets.US_ASCII);
    }
}
