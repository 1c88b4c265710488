/* A complex number of single precision: the bin type of the transforms. Plain C. */
#ifndef QUIBO_DSP_COMPLEX_H_
#define QUIBO_DSP_COMPLEX_H_

typedef struct {
  float real, imag;
} complex_t;

#endif /* QUIBO_DSP_COMPLEX_H_ */
