package com.velt.rz.corvane.io.offheap;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.child.ChildJvm;
import java.io.IOException;
import java.nio.file.Files;
import java.util.List;
import java.util.Set;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** Reads from the built library what its compiler and its linker were told to protect. */
class HardenedLibraryTest {
    private static ElfFile elf;
    private static Set<String> imported;

    @BeforeAll
    static void read() throws IOException {
        byte[] library = Files.readAllBytes(ChildJvm.library());
        elf = new ElfFile(library);
        imported = ElfSymbols.imported(library);
    }

    @Test
    void theStackIsNotExecutable() {
        List<ElfFile.Segment> stack = elf.of(ElfFile.PT_GNU_STACK);
        assertEquals(1, stack.size(), "without the header the loader makes every stack executable");
        assertEquals(0, stack.get(0).flags() & ElfFile.EXECUTABLE);
    }

    @Test
    void noSegmentIsWritableAndExecutable() {
        for (ElfFile.Segment segment : elf.of(ElfFile.PT_LOAD)) {
            int both = ElfFile.WRITABLE | ElfFile.EXECUTABLE;
            assertNotEquals(both, segment.flags() & both, segment::toString);
        }
        assertEquals(0, elf.dynamic(ElfFile.DT_FLAGS) & ElfFile.DF_TEXTREL);
        assertFalse(elf.dynamic.containsKey(ElfFile.DT_TEXTREL), "code would be writable while it is relocated");
    }

    @Test
    void addressesOfFunctionsAreReadOnlyOnceLoaded() {
        List<ElfFile.Segment> relro = elf.of(ElfFile.PT_GNU_RELRO);
        assertEquals(1, relro.size());
        // Bound at once: otherwise the table would have to stay writable.
        assertNotEquals(0, elf.dynamic(ElfFile.DT_FLAGS) & ElfFile.DF_BIND_NOW);
        assertNotEquals(0, elf.dynamic(ElfFile.DT_FLAGS_1) & ElfFile.DF_1_NOW);
        assertTrue(elf.dynamic.containsKey(ElfFile.DT_PLTGOT));
        assertTrue(relro.get(0).contains(elf.dynamic(ElfFile.DT_PLTGOT)));
    }

    /** Threads that end later still call into it; see ClassLoadersTest. */
    @Test
    void theLibraryStaysMapped() {
        assertNotEquals(0, elf.dynamic(ElfFile.DT_FLAGS_1) & ElfFile.DF_1_NODELETE);
    }

    @Test
    void otherLibrariesAreLookedForInTheSystemsPlacesOnly() {
        assertFalse(elf.dynamic.containsKey(ElfFile.DT_RPATH));
        assertFalse(elf.dynamic.containsKey(ElfFile.DT_RUNPATH));
    }

    /** Of what is linked in, only this library's own sources are compiled so that they refer to it. */
    @Test
    void overwrittenStackFramesEndTheProcess() {
        assertTrue(imported.contains("__stack_chk_fail"), imported::toString);
    }

    /** As above; these are the checked forms of the calls that fill the text areas. */
    @Test
    void overrunBuffersEndTheProcess() {
        assertTrue(imported.contains("__snprintf_chk"), imported::toString);
        assertTrue(imported.contains("__vsnprintf_chk"), imported::toString);
    }
}
