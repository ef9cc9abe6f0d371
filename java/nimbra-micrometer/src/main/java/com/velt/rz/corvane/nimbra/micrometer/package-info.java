/** Meters for Micrometer. */
package com.velt.rz.corvane.nimbra.micrometer;
