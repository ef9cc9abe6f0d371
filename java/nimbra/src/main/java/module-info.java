/** Keeps the entries of a data grid outside the Java heap. */
module com.velt.rz.corvane.nimbra {
    requires jdk.jfr;
    requires jdk.unsupported;
    requires transitive java.management;

    exports com.velt.rz.corvane.io.offheap;
    exports com.velt.rz.corvane.io.offheap.impl;
    exports com.velt.rz.corvane.io.offheap.overflow;
    exports com.velt.rz.corvane.io.offheap.util;
    exports com.velt.rz.corvane.nimbra;
    exports com.velt.rz.corvane.nimbra.overflow;
}
