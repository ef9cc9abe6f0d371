package com.velt.rz.corvane.nimbra;

import java.util.ArrayList;
import java.util.List;

/** Keys as an attacker would choose them against an unkeyed hash. */
final class HashFlooding {
    private HashFlooding() {}

    /** All 2^pairs strings of "Aa" and "BB": the same polynomial hash for every one of them. */
    static List<byte[]> collidingKeys(int pairs) {
        List<byte[]> keys = new ArrayList<>();
        for (int choice = 0; choice < 1 << pairs; choice++) {
            StringBuilder key = new StringBuilder();
            for (int pair = 0; pair < pairs; pair++) {
                key.append((choice >> pair & 1) == 0 ? "Aa" : "BB");
            }
            keys.add(TestRuntime.bytes(key.toString()));
        }
        return keys;
    }
}
