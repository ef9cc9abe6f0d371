package com.velt.rz.corvane.io.offheap.child;

import java.lang.ref.PhantomReference;
import java.lang.ref.Reference;
import java.lang.ref.ReferenceQueue;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.net.MalformedURLException;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Path;
import java.util.concurrent.CountDownLatch;

/**
 * Loads the classes under test by class loaders of their own and prints what comes of it. Arguments: what to try, and
 * where the classes lie.
 */
public final class LoadersProbe {
    private static final String PREFIX = "com.velt.rz.corvane.";
    private static final int COLLECTIONS = 100;

    private LoadersProbe() {}

    public static void main(String[] arguments) throws Exception {
        Path classes = Path.of(arguments[1]);
        switch (arguments[0]) {
            case "two" -> two(classes);
            case "loaded" -> unload(classes, false);
            case "used" -> unload(classes, true);
            default -> throw new IllegalArgumentException(arguments[0]);
        }
    }

    private static URLClassLoader loader(Path classes) throws MalformedURLException {
        return new URLClassLoader(new URL[] {classes.toUri().toURL()}, ClassLoader.getPlatformClassLoader());
    }

    private static Object call(Object target, String name, Object... arguments) throws ReflectiveOperationException {
        for (Method method : target.getClass().getMethods()) {
            if (method.getName().equals(name) && method.getParameterCount() == arguments.length) {
                return method.invoke(target, arguments);
            }
        }
        throw new NoSuchMethodException(name);
    }

    private static Object callStatic(ClassLoader loader, String type, String name) throws ReflectiveOperationException {
        return Class.forName(PREFIX + type, true, loader).getMethod(name).invoke(null);
    }

    /** Starts a runtime and returns it. */
    private static Object start(ClassLoader loader, long maximum) throws ReflectiveOperationException {
        Object builder = callStatic(loader, "nimbra.Nimbra", "builder");
        return call(call(builder, "maximumBytes", maximum), "start");
    }

    private static void two(Path classes) throws Exception {
        try (URLClassLoader first = loader(classes);
                URLClassLoader second = loader(classes)) {
            Object one = start(first, 64L << 20);
            Object map = call(one, "newMap");
            call(map, "put", new byte[] {1}, new byte[] {2});
            System.out.println("first " + call(one, "stats"));
            try {
                Object other = start(second, 32L << 20);
                System.out.println("second " + call(other, "stats"));
                Object otherMap = call(other, "newMap");
                System.out.println("second finds " + call(otherMap, "get", new byte[] {1}));
                call(otherMap, "close");
                System.out.println("second " + call(other, "stats"));
            } catch (InvocationTargetException e) {
                System.out.println("second " + e.getCause());
            }
            System.out.println("first finds " + ((byte[]) call(map, "get", new byte[] {1}))[0]);
            call(map, "close");
        }
        System.out.println("end");
    }

    /** A thread that has been inside the library outlives the loader, as the threads of a pool do. */
    private static void unload(Path classes, boolean use) throws Exception {
        CountDownLatch inside = new CountDownLatch(1);
        CountDownLatch leave = new CountDownLatch(1);
        ReferenceQueue<ClassLoader> collected = new ReferenceQueue<>();
        Thread[] threads = new Thread[2];
        Reference<ClassLoader> reference = enter(classes, use, collected, inside, leave, threads);
        inside.await();
        boolean gone = false;
        for (int i = 0; i < COLLECTIONS && !gone; i++) {
            System.gc();
            gone = collected.remove(20) != null;
        }
        System.out.println(gone ? "collected" : "kept");
        leave.countDown();
        for (Thread thread : threads) {
            thread.join();
        }
        Reference.reachabilityFence(reference);
        System.out.println("end");
    }

    private static Reference<ClassLoader> enter(
            Path classes,
            boolean use,
            ReferenceQueue<ClassLoader> collected,
            CountDownLatch inside,
            CountDownLatch leave,
            Thread[] threads)
            throws Exception {
        CountDownLatch entered = new CountDownLatch(threads.length);
        URLClassLoader loader = loader(classes);
        URLClassLoader[] handed = {loader};
        for (int i = 0; i < threads.length; i++) {
            threads[i] = new Thread(() -> {
                try {
                    work(handed[0], use);
                } catch (ReflectiveOperationException e) {
                    System.out.println("failed " + e);
                }
                entered.countDown();
                try {
                    leave.await();
                } catch (InterruptedException e) {
                    System.out.println("interrupted");
                }
            });
            threads[i].setContextClassLoader(null);
            threads[i].start();
        }
        entered.await();
        handed[0] = null;
        loader.close();
        inside.countDown();
        return new PhantomReference<>(loader, collected);
    }

    private static void work(ClassLoader loader, boolean use) throws ReflectiveOperationException {
        if (use) {
            Object map = call(start(loader, 64L << 20), "newMap");
            for (int i = 0; i < 1_000; i++) {
                call(map, "put", new byte[] {(byte) i}, new byte[1_000]);
            }
            call(map, "close");
        } else {
            callStatic(loader, "io.offheap.util.NativeLoader", "load");
            Object manager = Class.forName(PREFIX + "io.offheap.OffHeapManager", true, loader)
                    .getConstructor()
                    .newInstance();
            call(manager, "getLibraryVersion");
            call(manager, "getJemallocStats");
        }
    }
}
