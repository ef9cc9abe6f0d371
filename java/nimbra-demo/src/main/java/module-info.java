/** A demonstration with a check: real data goes off heap and comes back byte for byte. */
module com.velt.rz.corvane.nimbra.demo {
    requires com.velt.rz.corvane.nimbra;
    requires info.picocli;

    opens com.velt.rz.corvane.nimbra.demo to
            info.picocli;
}
