package com.velt.rz.corvane.io.offheap;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.velt.rz.corvane.io.offheap.NativeTable.Row;
import com.velt.rz.corvane.io.offheap.util.NativeLoader;
import java.io.IOException;
import java.io.InputStream;
import java.lang.reflect.Array;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.TreeSet;
import java.util.stream.Collectors;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/** The committed table of natives against the Java classes on one side and the library's exports on the other. */
class SymbolTableTest {
    private static final String FACE = "Java_com_velt_rz_corvane_nimbra_";

    private static final List<Row> ROWS = NativeTable.rows();
    private static TreeSet<String> exported;

    @BeforeAll
    static void readLibrary() throws IOException {
        String resource = "/META-INF/native/" + NativeLoader.platform() + "/libnimbra.so";
        try (InputStream in = NativeLoader.class.getResourceAsStream(resource)) {
            assertNotNull(in, "the native library is not built: no " + resource);
            exported = ElfSymbols.exported(in.readAllBytes());
        }
    }

    @Test
    void theTableHoldsEveryNative() {
        assertEquals(163, ROWS.size());
        assertEquals(
                4, ROWS.stream().filter(row -> row.binding().equals("mangled")).count());
        assertEquals(
                2, ROWS.stream().filter(row -> row.binding().equals("jni-long")).count());
    }

    @Test
    void theClassesDeclareWhatTheTableSays() {
        TreeSet<String> declared = new TreeSet<>();
        Set<Class<?>> owners = ROWS.stream().map(Row::owner).collect(Collectors.toSet());
        for (Class<?> owner : owners) {
            for (Method method : owner.getDeclaredMethods()) {
                if (Modifier.isNative(method.getModifiers())) {
                    assertTrue(Modifier.isPublic(method.getModifiers()), method + " is not public");
                    declared.add(NativeTable.declaration(method));
                }
            }
        }
        TreeSet<String> expected = ROWS.stream().map(Row::declaration).collect(Collectors.toCollection(TreeSet::new));
        assertEquals(String.join("\n", expected), String.join("\n", declared));
    }

    @Test
    void theTablesSymbolsFollowTheNamingRule() {
        for (Row row : ROWS) {
            String name = "Java_" + escape(row.owner().getName()) + "_" + escape(row.method());
            if (row.binding().equals("jni-long")) {
                name += "__"
                        + row.parameters().stream()
                                .map(SymbolTableTest::signature)
                                .collect(Collectors.joining());
            }
            assertEquals(name, row.symbol(), row.declaration());
        }
    }

    @Test
    void everyBuiltNativeIsExportedAsTheTableSays() {
        List<String> wrong = new ArrayList<>();
        for (Row row : ROWS) {
            boolean plain = exported.contains(row.symbol());
            boolean mangled = exported.stream().anyMatch(name -> name.startsWith(row.mangledPrefix()));
            boolean bindable = row.built() && !row.binding().equals("mangled");
            boolean onlyMangled = row.built() && row.binding().equals("mangled");
            if (plain != bindable || mangled != onlyMangled) {
                wrong.add(row + " is " + row.binding() + " and " + (row.built() ? "built" : "planned")
                        + ", but exported plain: " + plain + ", as a C++ name: " + mangled);
            }
        }
        assertEquals("", String.join("\n", wrong));
    }

    @Test
    void overloadedNativesHaveNoShortName() {
        assertFalse(exported.contains("Java_com_velt_rz_corvane_io_offheap_OffHeapManager_getReferenceCountImpl"));
    }

    @Test
    void nothingElseIsExported() {
        TreeSet<String> others = new TreeSet<>(exported);
        for (Row row : ROWS) {
            others.remove(row.symbol());
            others.removeIf(name -> row.binding().equals("mangled") && name.startsWith(row.mangledPrefix()));
        }
        others.removeIf(name -> name.startsWith(FACE));
        assertEquals(new TreeSet<String>(), others);
    }

    @Test
    void nativesThatAreNotExportedCannotBeCalled() throws ReflectiveOperationException {
        int called = 0;
        for (Row row : ROWS) {
            // A native that could be bound must not be entered with made-up addresses.
            if (!exported.contains(row.symbol())) {
                Object target =
                        row.isStatic() ? null : row.owner().getConstructor().newInstance();
                Method method = row.declared();
                InvocationTargetException thrown = assertThrows(
                        InvocationTargetException.class,
                        () -> method.invoke(target, zeros(row.parameters())),
                        row::declaration);
                assertInstanceOf(UnsatisfiedLinkError.class, thrown.getCause(), row.declaration());
                called++;
            }
        }
        assertTrue(called >= 4, "the four natives with C++ names are among them");
    }

    private static Object[] zeros(List<Class<?>> parameters) {
        // An array of a primitive type starts out with that type's zero.
        return parameters.stream()
                .map(type -> Array.get(Array.newInstance(type, 1), 0))
                .toArray();
    }

    private static String escape(String name) {
        return name.replace("_", "_1").replace('.', '_');
    }

    private static String signature(Class<?> type) {
        if (type == long.class) {
            return "J";
        }
        if (type == ByteBuffer.class) {
            return "Ljava_nio_ByteBuffer_2";
        }
        throw new IllegalArgumentException("no overloaded native takes a " + type);
    }
}
