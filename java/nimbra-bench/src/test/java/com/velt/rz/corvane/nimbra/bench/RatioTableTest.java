package com.velt.rz.corvane.nimbra.bench;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.List;
import org.junit.jupiter.api.Test;

class RatioTableTest {
    @Test
    void pairsTheCompetitorsOfEachCell() {
        List<String> lines = RatioTable.of(List.of(
                new Measurement("get", "heap", 64, 1, 200, 10, 104),
                new Measurement("get", "nimbra", 64, 1, 300, 6, 80),
                new Measurement("get", "nimbra", 64, 2, 330, 6, 80),
                new Measurement("put", "nimbra", 64, 1, 1500, 15, 0),
                new Measurement("put", "heap", 64, 1, 1000, 50, 168)));
        assertEquals(
                List.of(
                        "| put | 64 | 1 | 1500 | 1 % | 1000 | 5 % | 1.50 | 0 | 168 |",
                        "| get | 64 | 1 | 300 | 2 % | 200 | 5 % | 1.50 | 80 | 104 |"),
                lines.subList(2, lines.size()));
    }

    @Test
    void leavesOutWhatWasNotMeasured() {
        List<String> lines = RatioTable.of(List.of(
                new Measurement("remove", "nimbra", 256, 2, 400, Double.NaN, Double.NaN),
                new Measurement("remove", "heap", 256, 2, 800, 8, Double.NaN)));
        assertEquals("| remove | 256 | 2 | 400 | ? | 800 | 1 % | 0.50 |  |  |", lines.get(2));
    }
}
