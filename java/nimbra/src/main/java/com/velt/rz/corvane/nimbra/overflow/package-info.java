/** Keeps values on disk while their keys stay in memory. */
package com.velt.rz.corvane.nimbra.overflow;
