package com.velt.rz.corvane.io.offheap;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.io.UncheckedIOException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;

/** The committed table of natives, natives.tsv. */
final class NativeTable {
    private static final String PACKAGE = "com.velt.rz.corvane.io.offheap.";
    private static final Map<String, Class<?>> TYPES = Map.ofEntries(
            Map.entry("boolean", boolean.class),
            Map.entry("byte", byte.class),
            Map.entry("short", short.class),
            Map.entry("int", int.class),
            Map.entry("long", long.class),
            Map.entry("float", float.class),
            Map.entry("double", double.class),
            Map.entry("void", void.class),
            Map.entry("String", String.class),
            Map.entry("ByteBuffer", ByteBuffer.class),
            Map.entry("ByteBuffer[]", ByteBuffer[].class),
            Map.entry("byte[]", byte[].class),
            Map.entry("char[]", char[].class),
            Map.entry("int[]", int[].class),
            Map.entry("long[]", long[].class));

    /** One native: how it is declared, how it is exported, and whether the library has it yet. */
    record Row(
            Class<?> owner,
            boolean isStatic,
            String method,
            List<Class<?>> parameters,
            Class<?> result,
            String binding,
            String symbol,
            boolean built) {
        Method declared() throws NoSuchMethodException {
            return owner.getDeclaredMethod(method, parameters.toArray(new Class<?>[0]));
        }

        String declaration() {
            return NativeTable.declaration(owner, isStatic, method, parameters, result);
        }

        /** The name of a C++ function of this name begins so, whatever its parameters are. */
        String mangledPrefix() {
            return "_Z" + symbol.length() + symbol;
        }

        @Override
        public String toString() {
            return declaration();
        }
    }

    private NativeTable() {}

    static String declaration(Method method) {
        return declaration(
                method.getDeclaringClass(),
                Modifier.isStatic(method.getModifiers()),
                method.getName(),
                List.of(method.getParameterTypes()),
                method.getReturnType());
    }

    private static String declaration(
            Class<?> owner, boolean isStatic, String method, List<Class<?>> parameters, Class<?> result) {
        StringBuilder text = new StringBuilder(isStatic ? "static " : "")
                .append(result.getSimpleName())
                .append(' ')
                .append(owner.getName())
                .append('.')
                .append(method);
        List<String> names = new ArrayList<>();
        parameters.forEach(parameter -> names.add(parameter.getSimpleName()));
        return text.append(names).toString();
    }

    static List<Row> rows() {
        List<Row> rows = new ArrayList<>();
        try (InputStream in = NativeTable.class.getResourceAsStream("/natives.tsv");
                BufferedReader reader = new BufferedReader(new InputStreamReader(in, StandardCharsets.UTF_8))) {
            for (String line = reader.readLine(); line != null; line = reader.readLine()) {
                if (!line.startsWith("#") && !line.startsWith("class\t")) {
                    rows.add(row(line.split("\t")));
                }
            }
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
        return rows;
    }

    private static Row row(String[] fields) {
        List<Class<?>> parameters = new ArrayList<>();
        if (!fields[3].equals("-")) {
            for (String type : fields[3].split(",")) {
                parameters.add(type(type));
            }
        }
        return new Row(
                owner(fields[0]),
                oneOf(fields[1], "static", "instance"),
                fields[2],
                List.copyOf(parameters),
                type(fields[4]),
                fields[5],
                "Java_" + PACKAGE.replace('.', '_') + fields[6],
                oneOf(fields[7], "built", "planned"));
    }

    private static boolean oneOf(String word, String yes, String no) {
        if (!word.equals(yes) && !word.equals(no)) {
            throw new IllegalArgumentException(word + " is neither " + yes + " nor " + no);
        }
        return word.equals(yes);
    }

    private static Class<?> type(String name) {
        Class<?> type = TYPES.get(name);
        if (type == null) {
            throw new IllegalArgumentException("unknown type " + name);
        }
        return type;
    }

    private static Class<?> owner(String name) {
        try {
            return Class.forName(PACKAGE + name);
        } catch (ClassNotFoundException e) {
            throw new IllegalArgumentException("unknown class " + name, e);
        }
    }
}
